// SPDX-License-Identifier: Apache-2.0
#include "policy/event_filters.h"

#include <algorithm>

#include "platform/digest.h"
#include "plist/json_number.h"
#include "policy/bag_values.h"
#include "util/ascii.h"
#include "util/letter_case.h"
#include "util/utf8.h"

namespace telvora {

namespace {

// Compares every key of every event with every filter, so it uses the letter table only if the texts differ
// outside ASCII.
bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (asciiLowerCase(a[i]) == asciiLowerCase(b[i])) continue;
        const bool ascii = (static_cast<unsigned char>(a[i]) & static_cast<unsigned char>(b[i])) < 0x80;
        return !ascii && lowerCase(a) == lowerCase(b);
    }
    return true;
}

bool containsIgnoringCase(std::string_view text, std::string_view part) {
    return !part.empty() && lowerCase(text).find(lowerCase(part)) != std::string::npos;
}

FilterAction actionNamed(const std::string* name) {
    if (name != nullptr && *name == "remove") return FilterAction::remove;
    if (name != nullptr && *name == "sha256") return FilterAction::sha256;
    return FilterAction::keep;
}

const EventFilter* firstMatch(const std::vector<EventFilter>& filters, std::string_view key, int64_t method,
                              int64_t status) {
    for (const EventFilter& filter : filters) {
        if (filter.key.size() != key.size()) continue;
        if ((filter.method < 0 || filter.method == method) &&
            (filter.status < 0 || filter.status == status) && equalsIgnoringCase(filter.key, key)) {
            return filter.key.empty() ? nullptr : &filter;
        }
    }
    return nullptr;
}

template <typename Matches>
bool matchList(const StringList& list, const std::optional<std::string>& wholeString, bool whitelist,
               Matches matches) {
    if (list.empty()) return whitelist;
    if (!wholeString) return !whitelist;
    return std::any_of(list.begin(), list.end(),
                       [&](std::string_view element) { return matches(*wholeString, element); });
}

}  // namespace

void createFiltersFromArray(const Array& array, std::vector<EventFilter>& filters) {
    if (array.empty()) return;
    filters.clear();
    filters.reserve(array.size());
    for (const PropertyList& element : array) {
        const auto* dictionary = element.getIf<Dictionary>();
        const std::string* key = dictionary != nullptr ? dictionary->string("key") : nullptr;
        EventFilter& filter = filters.emplace_back();
        if (key == nullptr) continue;
        filter.method = bagInteger(*dictionary, "method").value_or(-1);
        filter.status = bagInteger(*dictionary, "status").value_or(-1);
        filter.action = actionNamed(dictionary->string("action"));
        filter.key = *key;
    }
}

void filterEvent(const std::vector<EventFilter>& filters, Dictionary& record,
                 const FilterObserver& observer) {
    if (filters.empty()) return;
    const int64_t method = record.integer("_method").value_or(0);
    const int64_t status = record.integer("_status").value_or(0);
    record.retain([&](const std::string& key, PropertyList& value) {
        const EventFilter* filter = firstMatch(filters, key, method, status);
        if (filter == nullptr || filter->action == FilterAction::keep) return true;
        if (observer) observer(key, *filter);
        if (filter->action == FilterAction::remove) return false;
        if (const auto* text = value.getIf<std::string>()) {
            value = convertIntoSHA256(*text);
        } else if (const auto number = jsonNumberText(value)) {
            value = convertIntoSHA256(*number);
        }
        return true;
    });
}

std::string convertIntoSHA256(std::string_view text) {
    return sha256Hex(text.substr(0, utf16Length(text)));
}

StringList splitList(const std::string* text) {
    StringList list;
    if (text == nullptr) return list;
    std::string_view rest = *text;
    for (size_t comma; (comma = rest.find(',')) != std::string_view::npos; rest.remove_prefix(comma + 1)) {
        list.push_back(rest.substr(0, comma));
    }
    list.push_back(rest);
    return list;
}

bool matchExactStringWithList(const StringList& list, const std::optional<std::string>& wholeString,
                              bool whitelist) {
    return matchList(list, wholeString, whitelist, equalsIgnoringCase);
}

bool matchStringWithList(const StringList& list, const std::optional<std::string>& wholeString,
                         bool whitelist) {
    return matchList(list, wholeString, whitelist, containsIgnoringCase);
}

}  // namespace telvora
