// SPDX-License-Identifier: Apache-2.0
//
// Property lists on the wire, one D-Bus type per kind of value:
//
//     dictionary a{sv}    array av    string s    boolean b    integer y n q i u x t    real d
//     data ay    date (d), seconds since 1970-01-01 UTC
//
// and an optional value as an array of at most one element: aa{sv}, as, aas, a(sis). All other types are
// refused by name. Of entries with the same key the last one wins.
//
// ArgumentReader and ArgumentWriter walk a message's arguments in order. The first failure sticks: after it
// every read returns an empty value and every write has no effect, so a caller checks once, at the end. Both
// borrow the message and belong to its connection's strand. codec.h selects their functions by type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bus/bus_message.h"
#include "plist/property_list.h"
#include "protocol/telvora_error.h"
#include "util/unique_fd.h"

namespace telvora {

// Maximum nesting of dictionaries and arrays. (D-Bus allows 64 containers; each level takes three of them.)
inline constexpr int kMaxPropertyListDepth = 16;

class ArgumentReader {
  public:
    explicit ArgumentReader(BusMessage& message) : message_(message) {}

    bool boolean();
    uint16_t u16();
    double real();
    std::string string();
    std::vector<std::string> strings();
    Dictionary dictionary();
    Array array();
    TelvoraError error();
    // A duplicate of the received descriptor, close-on-exec.
    UniqueFd file();
    // An array of at most one element of the D-Bus type `element`, which `read` reads.
    template <typename Read>
    auto optional(const char* element, Read read) -> std::optional<decltype(read())> {
        std::optional<decltype(read())> value;
        if (!enter('a', element)) return value;
        if (!message_.atEnd()) value = read();
        if (ok() && !message_.atEnd()) fail("More than one element where one value or nothing is expected");
        if (ok()) exit();
        return value;
    }

    bool ok() const { return failure_.empty(); }
    // The first failure, for people; never a value of the message. Empty if all reads succeeded.
    const std::string& failure() const { return failure_; }

  private:
    bool check(int result);
    bool fail(std::string failure);
    bool read(char type, void* value) { return ok() && check(message_.read(type, value)); }
    bool enter(char type, const char* contents) { return ok() && check(message_.enter(type, contents)); }
    bool exit() { return check(message_.exit()); }

    void readEntries(Dictionary& dictionary, int depth);
    void readElements(Array& array, int depth);
    PropertyList readVariant(int depth);
    PropertyList readValue(char type, const char* contents, int depth);
    template <typename Wire, typename Value>
    PropertyList readNumber(char type);
    PropertyList readContainer(const char* contents, int depth);
    PropertyList readDate();

    BusMessage& message_;
    std::string failure_;
};

class ArgumentWriter {
  public:
    explicit ArgumentWriter(BusMessage& message) : message_(message) {}

    void boolean(bool value);
    void u16(uint16_t value);
    void real(double value);
    // Invalid UTF-8 is replaced with U+FFFD.
    void string(const std::string& value);
    void strings(const std::vector<std::string>& values);
    void dictionary(const Dictionary& value) { dictionary(value, 0); }
    void array(const Array& value) { array(value, 0); }
    void error(const TelvoraError& value);
    // Sends a duplicate of `fd`.
    void file(int fd);
    // An array of `value`, which `write` writes as the D-Bus type `element`; empty if `value` is null.
    template <typename Value, typename Write>
    void optional(const char* element, const Value* value, Write write) {
        open('a', element);
        if (value != nullptr) write(*value);
        close();
    }

    // 0, or the negative errno of the first failure.
    int result() const { return result_; }

  private:
    void check(int result) {
        if (result < 0 && result_ >= 0) result_ = result;
    }
    void append(char type, const void* value) {
        if (result_ >= 0) check(message_.append(type, value));
    }
    void open(char type, const char* contents) {
        if (result_ >= 0) check(message_.open(type, contents));
    }
    void close() {
        if (result_ >= 0) check(message_.close());
    }
    void dictionary(const Dictionary& value, int depth);
    void array(const Array& value, int depth);
    void variant(const PropertyList& value, int depth);
    struct VariantWriter;

    BusMessage& message_;
    int result_ = 0;
};

// Approximate size of the value on the wire, in bytes.
size_t wireSize(const Dictionary& dictionary);

}  // namespace telvora
