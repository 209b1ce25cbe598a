// SPDX-License-Identifier: Apache-2.0
#include "status_reader.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "output.h"
#include "protocol/status_keys.h"
#include "util/utf8.h"

namespace telvora::ctl {

const Dictionary& dictionaryIn(const Dictionary& parent, std::string_view key) {
    static const Dictionary kNone;
    const Dictionary* found = parent.dictionary(key);
    return found != nullptr ? *found : kNone;
}

std::vector<Dictionary> entriesIn(const Dictionary& parent, std::string_view key) {
    std::vector<Dictionary> entries;
    const Array* array = parent.array(key);
    for (const PropertyList& element : array != nullptr ? *array : Array()) {
        if (const auto* entry = element.getIf<Dictionary>()) entries.push_back(*entry);
    }
    return entries;
}

std::string text(const Dictionary& values, std::string_view key) {
    const PropertyList* value = values.find(key);
    return value != nullptr ? escapeControlCharacters(textOf(*value)) : "-";
}

std::string durationText(double seconds) {
    const auto rounded = std::llround(seconds);
    if (rounded < 120) return std::to_string(rounded) + " s";
    if (rounded < 7200) return std::to_string(rounded / 60) + " min";
    return std::to_string(rounded / 3600) + " h";
}

std::string ageText(const Dictionary& values, std::string_view key) {
    const PropertyList* value = values.find(key);
    const auto* date = value != nullptr ? value->getIf<Date>() : nullptr;
    if (date == nullptr) return "-";
    return durationText(std::max(static_cast<double>(time(nullptr)) - date->seconds, 0.0)) + " ago";
}

std::string outcomeText(const Dictionary& outcome) {
    return text(outcome, outcome.contains(status::kHttpStatus) ? status::kHttpStatus : status::kReason);
}

}  // namespace telvora::ctl
