// SPDX-License-Identifier: Apache-2.0
#include "plist/json_writer.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <cstring>

#include "plist/json_number.h"
#include "util/base64.h"
#include "util/time_value.h"
#include "util/utf8.h"

namespace telvora {

namespace {

using rapidjson::SizeType;
using rapidjson::StringBuffer;

// Most texts need no escape. Copying such a text whole takes a quarter off the time of a message, compared
// with the library's loop over its bytes.
void putQuoted(StringBuffer& buffer, std::string_view text) {
    char* place = buffer.Push(text.size() + 2);
    *place = '"';
    std::memcpy(place + 1, text.data(), text.size());
    place[text.size() + 1] = '"';
}

class CompactWriter : public rapidjson::Writer<StringBuffer> {
  public:
    using Writer::Writer;
    void plainString(std::string_view text) {
        Prefix(rapidjson::kStringType);
        putQuoted(*os_, text);
    }
};

class PrettyWriter : public rapidjson::PrettyWriter<StringBuffer> {
  public:
    explicit PrettyWriter(StringBuffer& buffer) : rapidjson::PrettyWriter<StringBuffer>(buffer) {
        SetIndent(' ', 2);
    }
    void plainString(std::string_view text) {
        PrettyPrefix(rapidjson::kStringType);
        putQuoted(*os_, text);
    }
};

// Whether one of eight characters is a quotation mark, a backslash, a control character or beyond ASCII. A
// borrow may report a character too many, never one too few.
constexpr bool hasSpecial(uint64_t eight) {
    constexpr uint64_t kEach = 0x0101010101010101;
    const uint64_t controls = eight - kEach * 0x20;
    const uint64_t quotes = (eight ^ (kEach * '"')) - kEach;
    const uint64_t backslashes = (eight ^ (kEach * '\\')) - kEach;
    return ((controls | quotes | backslashes | eight) & (kEach * 0x80)) != 0;
}

template <typename Block>
uint64_t load(const char* from) {
    Block block;
    std::memcpy(&block, from, sizeof block);
    return block;
}

// All characters of a text of less than eight characters, some of them twice, padded with blanks.
uint64_t loadShort(std::string_view text) {
    constexpr uint64_t kBlanks = 0x2020202020202020;
    const size_t size = text.size();
    if (size == 0) return kBlanks;
    const char* const data = text.data();
    if (size >= sizeof(uint32_t)) {
        return load<uint32_t>(data) << 32 | load<uint32_t>(data + size - sizeof(uint32_t));
    }
    return kBlanks << 24 | load<uint8_t>(data) << 16 | load<uint8_t>(data + size / 2) << 8 |
           load<uint8_t>(data + size - 1);
}

// Whether JSON carries the text as it is: no character needs an escape, all are ASCII.
bool isPlain(std::string_view text) {
    if (text.size() < sizeof(uint64_t)) return !hasSpecial(loadShort(text));
    const char* const last = text.data() + text.size() - sizeof(uint64_t);
    for (const char* at = text.data(); at < last; at += sizeof(uint64_t)) {
        if (hasSpecial(load<uint64_t>(at))) return false;
    }
    return !hasSpecial(load<uint64_t>(last));
}

// Calls are virtual for single pieces only: walking a value makes no virtual calls.
template <typename Writer>
class JsonWriterOn final : public JsonWriter {
  public:
    explicit JsonWriterOn(JsonReals reals) : reals_(reals) {}

    void beginObject() override { writer_.StartObject(); }
    void endObject() override { writer_.EndObject(); }
    void beginArray() override { writer_.StartArray(); }
    void endArray() override { writer_.EndArray(); }
    void null() override { writer_.Null(); }
    void string(std::string_view text) override { (*this)(text); }
    void real(double number) override { (*this)(number); }
    void dictionary(const Dictionary& dictionary) override { (*this)(dictionary); }
    void value(const PropertyList& value) override { write(value); }
    std::string text() const override { return {buffer_.GetString(), buffer_.GetSize()}; }

    void operator()(bool value) { writer_.Bool(value); }
    void operator()(int64_t value) { writer_.Int64(value); }
    void operator()(uint64_t value) { writer_.Uint64(value); }
    void operator()(double value) {
        if (reals_ == JsonReals::positional) return void(writer_.Double(TelvoradUtil::sanitizeNumber(value)));
        const JsonReal text(value);
        writer_.RawValue(text.data(), text.size(), rapidjson::kNumberType);
    }
    void operator()(std::string_view text) {
        if (isPlain(text)) return writer_.plainString(text);
        if (isValidUtf8(text)) return void(writer_.String(text.data(), static_cast<SizeType>(text.size())));
        const std::string repaired = replaceInvalidUtf8(text);
        writer_.String(repaired.data(), static_cast<SizeType>(repaired.size()));
    }
    void operator()(const std::string& text) { (*this)(std::string_view(text)); }
    void operator()(const Data& data) { writer_.plainString(base64Encode(data.bytes)); }
    void operator()(const Date& date) { (*this)(date.seconds); }
    void operator()(const Array& array) {
        writer_.StartArray();
        for (const PropertyList& element : array)
            write(element);
        writer_.EndArray();
    }
    void operator()(const Dictionary& dictionary) {
        writer_.StartObject();
        for (const auto& [key, value] : dictionary) {
            (*this)(std::string_view(key));
            write(value);
        }
        writer_.EndObject();
    }

  private:
    void write(const PropertyList& value) { std::visit(*this, value.value()); }

    const JsonReals reals_;
    StringBuffer buffer_;
    Writer writer_{buffer_};
};

}  // namespace

std::unique_ptr<JsonWriter> JsonWriter::make(JsonLayout layout, JsonReals reals) {
    if (layout == JsonLayout::pretty) return std::make_unique<JsonWriterOn<PrettyWriter>>(reals);
    return std::make_unique<JsonWriterOn<CompactWriter>>(reals);
}

std::string jsonText(const PropertyList& value, JsonLayout layout) {
    const std::unique_ptr<JsonWriter> writer = JsonWriter::make(layout);
    writer->value(value);
    return writer->text();
}

}  // namespace telvora
