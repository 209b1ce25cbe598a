// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/event_json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include "json/json_reader.h"
#include "plist/json_writer.h"
#include "util/utf8.h"

namespace telvora::lab {
namespace {

tl::unexpected<std::string> parseFailure(rapidjson::ParseErrorCode code, size_t offset) {
    return tl::make_unexpected(std::string(rapidjson::GetParseError_En(code)) + " at byte " +
                               std::to_string(offset));
}

// Extracts the number under one key from each object in the array "events" of the outermost object.
class NumberCollector : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, NumberCollector> {
  public:
    explicit NumberCollector(std::string_view key) : key_(key) {}

    std::vector<uint64_t> numbers;

    bool StartObject() {
        ++depth_;
        return true;
    }
    bool EndObject(rapidjson::SizeType) {
        --depth_;
        return true;
    }
    bool StartArray() {
        ++depth_;
        return true;
    }
    bool EndArray(rapidjson::SizeType) {
        --depth_;
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        const std::string_view name(text, length);
        if (depth_ == 1) inEvents_ = name == "events";
        wanted_ = depth_ == kEventDepth && inEvents_ && name == key_;
        return true;
    }
    bool Uint(unsigned value) { return Uint64(value); }
    bool Uint64(uint64_t value) {
        if (wanted_) {
            numbers.push_back(value);
            wanted_ = false;
        }
        return true;
    }

  private:
    static constexpr int kEventDepth = 3;

    const std::string_view key_;
    int depth_ = 0;
    bool inEvents_ = false;
    bool wanted_ = false;
};

}  // namespace

tl::expected<EventMessage, std::string> parseEventMessage(std::string_view json) {
    auto parsed = parseJson(json);
    if (!parsed) return tl::unexpected(std::move(parsed.error()));
    const Dictionary* root = parsed->getIf<Dictionary>();
    if (root == nullptr) return tl::unexpected(std::string("no object"));

    EventMessage message;
    message.postTime = root->real("postTime");
    if (const std::string* clientId = root->string("clientId")) message.clientId = *clientId;
    if (const Array* events = root->array("events")) {
        message.events.emplace();
        for (const PropertyList& event : *events) {
            const Dictionary* fields = event.getIf<Dictionary>();
            if (!fields) return tl::make_unexpected(std::string("an event is no object"));
            message.events->push_back(*fields);
        }
    }
    return message;
}

tl::expected<std::vector<uint64_t>, std::string> eventNumbers(std::string_view json, std::string_view key) {
    rapidjson::Reader reader;
    rapidjson::MemoryStream stream(json.data(), json.size());
    NumberCollector collector(key);
    if (!reader.Parse(stream, collector)) {
        return parseFailure(reader.GetParseErrorCode(), reader.GetErrorOffset());
    }
    return std::move(collector.numbers);
}

std::string toJson(const PropertyList& value, bool pretty) {
    return escapeControlCharactersInJson(jsonText(value, pretty ? JsonLayout::pretty : JsonLayout::compact));
}

}  // namespace telvora::lab
