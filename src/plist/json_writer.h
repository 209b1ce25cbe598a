// SPDX-License-Identifier: Apache-2.0
//
// Property lists as JSON (RFC 8259): data as base64, dates as seconds since 1970, NaN and infinity as -1.0,
// bytes that are no UTF-8 as U+FFFD.
#pragma once

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "plist/json_number.h"
#include "plist/json_plain_text.h"
#include "plist/property_list.h"
#include "util/base64.h"
#include "util/time_value.h"
#include "util/utf8.h"

namespace telvora {

enum class JsonLayout { compact, pretty };  // without white space; on several lines, indented by two blanks

// The digits of reals read back as the same value in both forms.
enum class JsonReals {
    shortest,    // as few characters as possible: 1e+05
    positional,  // without an exponent up to 21 digits: 100000.0
};

// The whole value as JSON, with positional reals. Thread-safe.
std::string jsonText(const PropertyList& value, JsonLayout layout = JsonLayout::compact);

// Throws std::bad_alloc, where the library's own allocator returns a null pointer that the library writes to.
class JsonAllocator {
  public:
    static const bool kNeedFree = true;
    void* Malloc(size_t size) { return size != 0 ? checked(std::malloc(size)) : nullptr; }
    void* Realloc(void* block, size_t /*size*/, size_t newSize) {
        return checked(std::realloc(block, newSize));
    }
    static void Free(void* block) { std::free(block); }

  private:
    static void* checked(void* block) {
        if (block == nullptr) throw std::bad_alloc();
        return block;
    }
};

using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, JsonAllocator>;

// Adds to RapidJSON's writers a way for numbers, and for texts that need no escape, as most do. Copying such
// a text whole takes a quarter off the time of a message, compared with the library's loop over its bytes.
template <typename Library>
class PlainTextWriter : public Library {
  public:
    explicit PlainTextWriter(JsonBuffer& buffer) : Library(buffer) {
        if constexpr (kPretty) this->SetIndent(' ', kIndent);
    }

    void number(std::string_view text) {
        prefix(rapidjson::kNumberType);
        std::memcpy(this->os_->Push(text.size()), text.data(), text.size());
    }
    template <typename Integer>
    void integer(Integer value) {
        char text[24];
        number({text, static_cast<size_t>(std::to_chars(text, text + sizeof text, value).ptr - text)});
    }
    void plainString(std::string_view text) {
        prefix(rapidjson::kStringType);
        char* place = this->os_->Push(text.size() + 2);
        *place = '"';
        std::memcpy(place + 1, text.data(), text.size());
        place[text.size() + 1] = '"';
    }

  private:
    void prefix(rapidjson::Type type) {
        if constexpr (kPretty) {
            prettyPrefix(type);
        } else {
            this->Prefix(type);
        }
    }

    // The library writes the blanks one by one, which is a third of the time of a text.
    void prettyPrefix(rapidjson::Type type) {
        constexpr std::string_view kLine = ",\n                              ";
        constexpr size_t kCopied = kLine.size() - 1;  // with or without the comma
        const size_t depth = this->level_stack_.GetSize() / sizeof(typename Library::Level);
        auto* const level = depth > 0 ? this->level_stack_.template Top<typename Library::Level>() : nullptr;
        if (level == nullptr || level->inArray || depth * kIndent + 2 > kCopied)
            return this->PrettyPrefix(type);
        const size_t count = level->valueCount++;  // of keys and values
        if (count % 2 != 0) return void(std::memcpy(this->os_->Push(2), ": ", 2));
        const size_t skipped = count == 0 ? 1 : 0;  // the comma
        this->os_->Reserve(kCopied);                // a copy of constant size needs no call
        char* const place = this->os_->PushUnsafe(2 - skipped + depth * kIndent);
        std::memcpy(place, kLine.data() + skipped, kCopied);
    }

    static constexpr unsigned kIndent = 2;
    static constexpr bool kPretty = std::is_base_of_v<
        rapidjson::PrettyWriter<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonAllocator>, Library>;
};

// Writes one value piece by piece. The caller keeps to the grammar: in an object, a key before each value.
// A template, because virtual calls for the pieces of a message cost a tenth of its time. Not thread-safe.
template <JsonLayout layout = JsonLayout::compact, JsonReals reals = JsonReals::positional>
class JsonWriter {
  public:
    JsonWriter() = default;
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    void beginObject() { writer_.StartObject(); }
    void endObject() { writer_.EndObject(); }
    void beginArray() { writer_.StartArray(); }
    void endArray() { writer_.EndArray(); }
    void key(std::string_view name) { string(name); }

    void null() { writer_.Null(); }
    void string(std::string_view text) {
        if (isPlainJson(text)) {
            writer_.plainString(text);
        } else {
            escapedString(text);
        }
    }
    void real(double number) {
        if constexpr (reals == JsonReals::positional) {
            writer_.Double(TelvoradUtil::sanitizeNumber(number));
        } else {
            const JsonReal& text = reals_.textOf(number);
            writer_.number({text.data(), text.size()});
        }
    }
    void dictionary(const Dictionary& dictionary) {
        beginObject();
        for (const auto& [name, content] : dictionary) {
            key(name);
            value(content);
        }
        endObject();
    }
    void value(const PropertyList& value) { std::visit(ValueWriter{*this}, value.value()); }

    // All that was written.
    std::string text() const { return {buffer_.GetString(), buffer_.GetSize()}; }

  private:
    [[gnu::noinline]] void escapedString(std::string_view text) {
        const std::string repaired = isValidUtf8(text) ? std::string() : replaceInvalidUtf8(text);
        if (!repaired.empty()) text = repaired;
        writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    }

    struct ValueWriter {
        JsonWriter& out;

        void operator()(bool value) const { out.writer_.Bool(value); }
        void operator()(int64_t value) const { out.writer_.integer(value); }
        void operator()(uint64_t value) const { out.writer_.integer(value); }
        void operator()(double value) const { out.real(value); }
        void operator()(const std::string& value) const { out.string(value); }
        void operator()(const Date& value) const { out.real(value.seconds); }
        // Not inlined, so that the types above are: containers recurse, and data are rare.
        [[gnu::noinline]] void operator()(const Array& value) const {
            out.beginArray();
            for (const PropertyList& element : value)
                out.value(element);
            out.endArray();
        }
        [[gnu::noinline]] void operator()(const Data& value) const { out.string(base64Encode(value.bytes)); }
        [[gnu::noinline]] void operator()(const Dictionary& value) const { out.dictionary(value); }
    };
    template <template <typename, typename, typename, typename, unsigned> typename Writer>
    using With = Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonAllocator,
                        rapidjson::kWriteDefaultFlags>;
    using Library = std::conditional_t<layout == JsonLayout::pretty, With<rapidjson::PrettyWriter>,
                                       With<rapidjson::Writer>>;

    JsonBuffer buffer_;
    RecentReals reals_;
    PlainTextWriter<Library> writer_{buffer_};
};

}  // namespace telvora
