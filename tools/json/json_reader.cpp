// SPDX-License-Identifier: Apache-2.0
#include "json/json_reader.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <variant>
#include <vector>

#include "util/utf8.h"

namespace telvora {

namespace {

constexpr size_t kMaxDepth = 64;

// Builds a value from RapidJSON's events.
class Collector : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Collector> {
  public:
    const char* problem = nullptr;
    PropertyList result;

    bool Null() {
        problem = "null has no place in a property list";
        return false;
    }
    bool Bool(bool value) { return add(value); }
    // RapidJSON's own conversion of "0e308" is undefined.
    bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
        const char* const end = text + length;
        const auto addAs = [&](auto value) {
            const auto [rest, error] = std::from_chars(text, end, value);
            return error == std::errc() && rest == end && add(value);
        };
        problem = nullptr;
        if (addAs(0LL) || addAs(0ULL) || addAs(0.0)) return true;
        if (problem == nullptr) problem = "a number is out of range";
        return false;
    }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        return isText({text, length}) && add(std::string_view(text, length));
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        open_.back().key.assign(text, length);
        return isText(open_.back().key);
    }
    bool StartObject() { return open(Dictionary()); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(Array()); }
    bool EndArray(rapidjson::SizeType) { return close(); }

  private:
    struct Container {
        std::variant<Dictionary, Array> value;
        std::string key;  // of the next entry
    };

    // RapidJSON lets the second half of a surrogate pair stand alone.
    bool isText(std::string_view text) {
        if (isValidUtf8(text)) return true;
        problem = "a surrogate has no partner";
        return false;
    }
    bool open(std::variant<Dictionary, Array> container) {
        if (open_.size() >= kMaxDepth) {
            problem = "nested too deep";
            return false;
        }
        open_.push_back({std::move(container), {}});
        return true;
    }
    bool close() {
        Container ended = std::move(open_.back());
        open_.pop_back();
        return std::visit([this](auto& value) { return add(std::move(value)); }, ended.value);
    }
    bool add(PropertyList value) {
        if (open_.empty()) {
            result = std::move(value);
        } else if (auto* dictionary = std::get_if<Dictionary>(&open_.back().value)) {
            if (dictionary->contains(open_.back().key)) {
                problem = "a key stands twice in one object";
                return false;
            }
            dictionary->set(open_.back().key, std::move(value));
        } else {
            std::get<Array>(open_.back().value).push_back(std::move(value));
        }
        return true;
    }

    std::vector<Container> open_;
};

}  // namespace

tl::expected<PropertyList, std::string> parseJson(std::string_view text) {
    rapidjson::MemoryStream bytes(text.data(), text.size());
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(bytes);
    rapidjson::Reader reader;
    Collector collector;
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                                rapidjson::kParseNumbersAsStringsFlag;
    if (reader.Parse<kFlags>(stream, collector)) return std::move(collector.result);
    const char* problem = collector.problem != nullptr
                              ? collector.problem
                              : rapidjson::GetParseError_En(reader.GetParseErrorCode());
    return tl::unexpected(std::string(problem) + " (at byte " + std::to_string(reader.GetErrorOffset() + 1) +
                          ")");
}

}  // namespace telvora
