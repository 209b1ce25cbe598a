// SPDX-License-Identifier: Apache-2.0
//
// Property lists as JSON (RFC 8259): data as base64, dates as seconds since 1970, NaN and infinity as -1.0,
// bytes that are no UTF-8 as U+FFFD.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "plist/property_list.h"

namespace telvora {

enum class JsonLayout { compact, pretty };  // without white space; on several lines, indented by two blanks

// The digits of reals read back as the same value in both forms.
enum class JsonReals {
    shortest,    // as few characters as possible: 1e+05
    positional,  // without an exponent up to 21 digits: 100000.0
};

// Writes one value piece by piece. The caller keeps to the grammar: in an object, a key before each value.
// Not thread-safe.
class JsonWriter {
  public:
    static std::unique_ptr<JsonWriter> make(JsonLayout layout = JsonLayout::compact,
                                            JsonReals reals = JsonReals::positional);
    virtual ~JsonWriter() = default;

    virtual void beginObject() = 0;
    virtual void endObject() = 0;
    virtual void beginArray() = 0;
    virtual void endArray() = 0;
    void key(std::string_view name) { string(name); }

    virtual void null() = 0;
    virtual void string(std::string_view text) = 0;
    virtual void real(double number) = 0;
    virtual void dictionary(const Dictionary& dictionary) = 0;
    virtual void value(const PropertyList& value) = 0;

    // All that was written.
    virtual std::string text() const = 0;
};

// The whole value as JSON. Thread-safe.
std::string jsonText(const PropertyList& value, JsonLayout layout = JsonLayout::compact);

}  // namespace telvora
