// SPDX-License-Identifier: Apache-2.0
#include "json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <cstdio>

#include "util/utf8.h"

namespace telvora::ctl {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// JSON is UTF-8. A text that was cut to a length in bytes may be invalid.
void writeText(Writer& out, std::string_view text) {
    const std::string repaired = isValidUtf8(text) ? std::string() : replaceInvalidUtf8(text);
    if (!repaired.empty()) text = repaired;
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

// Escapes DEL and C1 control characters, which occur in strings only, as \u00NN: a terminal could interpret
// them.
std::string withoutControls(const rapidjson::StringBuffer& json) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char c : std::string_view(json.GetString(), json.GetSize())) {
        const auto byte = static_cast<unsigned char>(c);
        const bool c1 = byte >= 0x80 && byte < 0xa0 && text.ends_with('\xc2');
        if (c1) text.pop_back();
        if (c1 || byte == 0x7f) {
            text.append("\\u00").append({kDigits[byte >> 4], kDigits[byte & 15]});
        } else {
            text.push_back(c);
        }
    }
    return text;
}

void writeReal(Writer& out, double value) {
    out.Double(std::isfinite(value) ? value : -1.0);
}

std::string base64(std::string_view bytes) {
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (size_t j = 0; j < 3; ++j)
            group = group << 8 | (j < count ? static_cast<unsigned char>(bytes[i + j]) : 0u);
        for (size_t j = 0; j < 4; ++j)
            text += j <= count ? kDigits[group >> (18 - 6 * j) & 63] : '=';
    }
    return text;
}

struct ValueWriter {
    Writer& out;

    void operator()(bool value) const { out.Bool(value); }
    void operator()(int64_t value) const { out.Int64(value); }
    void operator()(uint64_t value) const { out.Uint64(value); }
    void operator()(double value) const { writeReal(out, value); }
    void operator()(const std::string& value) const { writeText(out, value); }
    void operator()(const Data& value) const { writeText(out, base64(value.bytes)); }
    void operator()(const Date& value) const { writeReal(out, value.seconds); }
    void operator()(const Array& value) const {
        out.StartArray();
        for (const PropertyList& element : value)
            std::visit(*this, element.value());
        out.EndArray();
    }
    void operator()(const Dictionary& value) const {
        out.StartObject();
        for (const Dictionary::Entry& entry : value) {
            writeText(out, entry.key);
            std::visit(*this, entry.value.value());
        }
        out.EndObject();
    }
};

void writeOrNull(Writer& out, const std::optional<std::string>& value) {
    if (value) {
        writeText(out, *value);
    } else {
        out.Null();
    }
}

void writeOrNull(Writer& out, const std::optional<Dictionary>& value) {
    if (value) {
        ValueWriter{out}(*value);
    } else {
        out.Null();
    }
}

template <typename Write>
void printObject(const char* name, Write write) {
    rapidjson::StringBuffer buffer;
    Writer out(buffer);
    out.StartObject();
    out.Key(name);
    write(out);
    out.EndObject();
    std::puts(withoutControls(buffer).c_str());
    std::fflush(stdout);
}

}  // namespace

std::string toJson(const PropertyList& value) {
    rapidjson::StringBuffer buffer;
    Writer out(buffer);
    std::visit(ValueWriter{out}, value.value());
    return withoutControls(buffer);
}

void printLine(const char* name, const std::optional<std::string>& value) {
    printObject(name, [&](Writer& out) { writeOrNull(out, value); });
}

void printLine(const char* name, const ReportingStates& states) {
    printObject(name, [&](Writer& out) {
        if (!states) return void(out.Null());
        out.StartArray();
        for (const std::string& state : *states)
            writeText(out, state);
        out.EndArray();
    });
}

void printLine(const char* name, const FlushAnswer& answer) {
    printObject(name, [&](Writer& out) {
        out.StartObject();
        out.Key("answer");
        writeOrNull(out, answer.answer);
        out.Key("error");
        if (answer.error) {
            out.StartObject();
            out.Key("domain");
            writeText(out, answer.error->domain);
            out.Key("code");
            out.Int(answer.error->code);
            out.Key("description");
            writeText(out, answer.error->description);
            out.EndObject();
        } else {
            out.Null();
        }
        out.EndObject();
    });
}

void printLine(const char* name, const AggregatedMessage& message) {
    printObject(name, [&](Writer& out) {
        out.StartObject();
        out.Key("sessionInfo");
        writeOrNull(out, message.sessionInfo);
        out.Key("timestamp");
        writeReal(out, message.timestamp);
        out.Key("category");
        out.Uint(message.category);
        out.Key("type");
        out.Uint(message.type);
        out.Key("payload");
        writeOrNull(out, message.payload);
        out.EndObject();
    });
}

}  // namespace telvora::ctl
