// SPDX-License-Identifier: Apache-2.0
#include "backends/json_message.h"

#if defined(__SSE2__)
#define RAPIDJSON_SSE2
#elif defined(__ARM_NEON)
#define RAPIDJSON_NEON
#endif
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>

#include "util/log.h"
#include "util/time_value.h"
#include "util/utf8.h"

namespace telvora {

namespace {

using CompactWriter = rapidjson::Writer<rapidjson::StringBuffer>;
using PrettyWriter = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

struct DoubleText {
    char text[32];
    size_t length;
};

// The fraction is kept where it is zero, so that a reader that tells the two apart sees a real number.
DoubleText textOf(double value) {
    DoubleText result;
    const double finite = TelvoradUtil::sanitizeNumber(value);
    char* end = std::to_chars(result.text, result.text + sizeof result.text - 2, finite).ptr;
    if (std::all_of(result.text, end, [](char c) { return (c >= '0' && c <= '9') || c == '-'; })) {
        *end++ = '.';
        *end++ = '0';
    }
    result.length = static_cast<size_t>(end - result.text);
    return result;
}

template <typename Writer>
void writeDouble(Writer& writer, double value) {
    const DoubleText text = textOf(value);
    writer.RawValue(text.text, text.length, rapidjson::kNumberType);
}

template <typename Writer>
void writeString(Writer& writer, const std::string& text) {
    if (isValidUtf8(text)) {
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
        TELVORA_LOG(kLogWarning,
                    "HTTPSPostBackend(createMessageForPostAndLogging): NSJSONSerialization unable to handle "
                    "key: %s, value: %s",
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

std::optional<std::string> jsonNumberText(const PropertyList& value) {
    if (!value.isNumber() && !value.is<Date>()) return std::nullopt;
    rapidjson::StringBuffer buffer;
    CompactWriter writer(buffer);
    std::visit(ValueWriter<CompactWriter>{writer}, value.value());
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace telvora
