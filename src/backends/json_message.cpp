// SPDX-License-Identifier: Apache-2.0
#include "backends/json_message.h"

#include "plist/json_writer.h"
#include "util/log.h"
#include "util/time_value.h"

namespace telvora {

namespace {

template <JsonLayout layout>
std::string write(const JsonMessage& message) {
    JsonWriter<layout, JsonReals::shortest> writer;
    writer.beginObject();
    writer.key("postTime");
    writer.real(message.postTime);
    if (message.clientId) {
        writer.key("clientId");
        writer.string(*message.clientId);
        writer.key("events");
        writer.beginArray();
        for (const Dictionary& event : message.events)
            writer.dictionary(event);
        writer.endArray();
    }
    writer.endObject();
    return writer.text();
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
    return write<JsonLayout::compact>(message);
}

std::string prettyJson(const JsonMessage& message) {
    return write<JsonLayout::pretty>(message);
}

}  // namespace telvora
