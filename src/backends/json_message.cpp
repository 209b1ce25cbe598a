// SPDX-License-Identifier: Apache-2.0
#include "backends/json_message.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstring>

#include "plist/json_number.h"
#include "util/log.h"
#include "util/time_value.h"
#include "util/utf8.h"

namespace telvora {

namespace {

// Nearly every text here is a short one that JSON carries as it is. Copying it whole takes a quarter off the
// time that a message takes with the library's way through it byte by byte.
class CompactWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
  public:
    using Writer::Writer;
    void plainString(std::string_view text) {
        Prefix(rapidjson::kStringType);
        putQuoted(*os_, text);
    }

    static void putQuoted(rapidjson::StringBuffer& buffer, std::string_view text) {
        char* place = buffer.Push(text.size() + 2);
        *place = '"';
        std::memcpy(place + 1, text.data(), text.size());
        place[text.size() + 1] = '"';
    }
};

class PrettyWriter : public rapidjson::PrettyWriter<rapidjson::StringBuffer> {
  public:
    using rapidjson::PrettyWriter<rapidjson::StringBuffer>::PrettyWriter;
    void plainString(std::string_view text) {
        PrettyPrefix(rapidjson::kStringType);
        CompactWriter::putQuoted(*os_, text);
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

// All characters of a text of less than eight, some of them twice, filled up with blanks.
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

// Whether JSON carries the text as it is: neither an escape is needed nor a look at its encoding.
bool isPlain(std::string_view text) {
    if (text.size() < sizeof(uint64_t)) return !hasSpecial(loadShort(text));
    const char* const last = text.data() + text.size() - sizeof(uint64_t);
    for (const char* at = text.data(); at < last; at += sizeof(uint64_t)) {
        if (hasSpecial(load<uint64_t>(at))) return false;
    }
    return !hasSpecial(load<uint64_t>(last));
}

template <typename Writer>
void writeDouble(Writer& writer, double value) {
    const JsonReal text(value);
    writer.RawValue(text.data(), text.size(), rapidjson::kNumberType);
}

template <typename Writer>
void writeString(Writer& writer, const std::string& text) {
    if (isPlain(text)) {
        writer.plainString(text);
    } else if (isValidUtf8(text)) {
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    } else {
        const std::string repaired = replaceInvalidUtf8(text);
        writer.String(repaired.data(), static_cast<rapidjson::SizeType>(repaired.size()));
    }
}

template <typename Writer>
struct ValueWriter {
    Writer& writer;

    void operator()(bool value) const { writer.Bool(value); }
    void operator()(int64_t value) const { writer.Int64(value); }
    void operator()(uint64_t value) const { writer.Uint64(value); }
    void operator()(double value) const { writeDouble(writer, value); }
    void operator()(const std::string& value) const { writeString(writer, value); }
    void operator()(const Date& value) const { writeDouble(writer, value.seconds); }
    // Removed from records by makeJsonSafe().
    void operator()(const Data&) const { writer.Null(); }
    void operator()(const Array&) const { writer.Null(); }
    void operator()(const Dictionary&) const { writer.Null(); }
};

template <typename Writer>
std::string write(const JsonMessage& message, rapidjson::StringBuffer& buffer, Writer& writer) {
    writer.StartObject();
    writer.Key("postTime");
    writeDouble(writer, message.postTime);
    if (message.clientId) {
        writer.Key("clientId");
        writeString(writer, *message.clientId);
        writer.Key("events");
        writer.StartArray();
        for (const Dictionary& event : message.events) {
            writer.StartObject();
            for (const Dictionary::Entry& entry : event) {
                writeString(writer, entry.key);
                std::visit(ValueWriter<Writer>{writer}, entry.value.value());
            }
            writer.EndObject();
        }
        writer.EndArray();
    }
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace

void makeJsonSafe(Dictionary& record) {
    record.retain([](const std::string& key, PropertyList& value) {
        if (value.isNumber() || value.is<std::string>()) return true;
        if (const auto* date = value.getIf<Date>()) {
            value = TelvoradUtil::sanitizeNumber(date->seconds);
            return true;
        }
        TELVORA_LOG(
            kLogWarning,
            "HTTPSPostBackend(createMessageForPostAndLogging): NSJSONSerialization unable to handle key: %s, value: %s",
            key.c_str(), value.shapeDescription().c_str());
        return false;
    });
}

std::string compactJson(const JsonMessage& message) {
    rapidjson::StringBuffer buffer;
    CompactWriter writer(buffer);
    return write(message, buffer, writer);
}

std::string prettyJson(const JsonMessage& message) {
    rapidjson::StringBuffer buffer;
    PrettyWriter writer(buffer);
    writer.SetIndent(' ', 2);
    return write(message, buffer, writer);
}

}  // namespace telvora
