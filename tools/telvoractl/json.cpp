// SPDX-License-Identifier: Apache-2.0
#include "json.h"

#include <cstdio>

#include "plist/json_writer.h"
#include "util/utf8.h"

namespace telvora::ctl {

namespace {

void writeOrNull(JsonWriter<>& out, const std::optional<std::string>& value) {
    if (value) {
        out.string(*value);
    } else {
        out.null();
    }
}

void writeOrNull(JsonWriter<>& out, const std::optional<Dictionary>& value) {
    if (value) {
        out.dictionary(*value);
    } else {
        out.null();
    }
}

template <typename Write>
void printObject(const char* name, Write write) {
    JsonWriter<> out;
    out.beginObject();
    out.key(name);
    write(out);
    out.endObject();
    std::puts(escapeControlCharactersInJson(out.text()).c_str());
    std::fflush(stdout);
}

}  // namespace

std::string toJson(const PropertyList& value) {
    return escapeControlCharactersInJson(jsonText(value));
}

void printLine(const char* name, const std::optional<std::string>& value) {
    printObject(name, [&](JsonWriter<>& out) { writeOrNull(out, value); });
}

void printLine(const char* name, const ReportingStates& states) {
    printObject(name, [&](JsonWriter<>& out) {
        if (!states) return void(out.null());
        out.beginArray();
        for (const std::string& state : *states)
            out.string(state);
        out.endArray();
    });
}

void printLine(const char* name, const FlushAnswer& answer) {
    printObject(name, [&](JsonWriter<>& out) {
        out.beginObject();
        out.key("answer");
        writeOrNull(out, answer.answer);
        out.key("error");
        if (answer.error) {
            out.beginObject();
            out.key("domain");
            out.string(answer.error->domain);
            out.key("code");
            out.value(answer.error->code);
            out.key("description");
            out.string(answer.error->description);
            out.endObject();
        } else {
            out.null();
        }
        out.endObject();
    });
}

void printLine(const char* name, const AggregatedMessage& message) {
    printObject(name, [&](JsonWriter<>& out) {
        out.beginObject();
        out.key("sessionInfo");
        writeOrNull(out, message.sessionInfo);
        out.key("timestamp");
        out.real(message.timestamp);
        out.key("category");
        out.value(message.category);
        out.key("type");
        out.value(message.type);
        out.key("payload");
        writeOrNull(out, message.payload);
        out.endObject();
    });
}

}  // namespace telvora::ctl
