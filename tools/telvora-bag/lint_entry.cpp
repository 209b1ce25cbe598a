// SPDX-License-Identifier: Apache-2.0
//
// Keys of an entry that contradict or cancel each other.
#include <algorithm>
#include <map>
#include <set>

#include "backends/event_filters.h"
#include "telvora-bag/lint_rules.h"

namespace telvora::bag {

namespace {

bool isCapitalLetter(char c) {
    return c >= 'A' && c <= 'Z';
}

bool isLetter(char c) {
    return isCapitalLetter(c) || (c >= 'a' && c <= 'z');
}

// A code has two letters, and the list's elements are looked for in it.
void lintCountries(const std::string& path, const Dictionary& client, Findings& findings) {
    for (const std::string_view part : splitList(client.string("locale_whitelist"))) {
        if (part.empty() || part.front() == ' ' || part.back() == ' ') continue;  // found already
        if (part.size() > 2 || !std::all_of(part.begin(), part.end(), isLetter)) {
            findings.error(path + "/locale_whitelist",
                           quoted(part) + " is in no country's code: it fits nothing");
        } else if (part.size() == 1) {
            findings.warn(path + "/locale_whitelist", quoted(part) + " fits every country with that letter");
        }
    }
}

void lintCountryThresholds(const std::string& path, const Dictionary& client, Findings& findings) {
    const Array* elements = client.array("per_country_sampling_thresholds");
    if (elements == nullptr) return;
    const StringList admitted = splitList(client.string("locale_whitelist"));
    std::map<std::string, size_t> first;  // the element that a country is in
    for (size_t i = 0; i < elements->size(); ++i) {
        const auto* content = (*elements)[i].getIf<Dictionary>();
        const Array* countries = content != nullptr ? content->array("country") : nullptr;
        if (countries == nullptr) continue;
        const std::string own = element(path + "/per_country_sampling_thresholds", i) + "/country";
        if (countries->empty()) findings.error(own, "is empty: the element fits no country");
        for (const PropertyList& value : *countries) {
            const auto* country = value.getIf<std::string>();
            if (country == nullptr) continue;
            const auto [position, isNew] = first.emplace(*country, i);
            if (country->size() != 2 || !std::all_of(country->begin(), country->end(), isCapitalLetter)) {
                findings.error(
                    own, quoted(*country) + " is no country's code in capital letters: it fits nothing");
            } else if (!isNew) {
                findings.error(own, quoted(*country) + " is never reached: element " +
                                        std::to_string(position->second) + " has it already");
            } else if (!matchStringWithList(admitted, *country, false)) {
                findings.error(own, quoted(*country) + " is never reached: it is not in locale_whitelist");
            }
        }
    }
}

void lintThresholds(const std::string& path, const Dictionary& client, Findings& findings) {
    const auto threshold = client.real("sampling_threshold");
    const auto override = client.real("override_sampling");
    if (threshold && override && *override > 0 && *override < *threshold &&
        !client.contains("per_country_sampling_thresholds")) {
        findings.warn(path + "/override_sampling",
                      "is below sampling_threshold: it does what 0 would do, no session is ever held");
    }
    if (!client.contains("event_threshold") && !client.boolean("expedite")) {
        findings.warn(path + "/event_threshold",
                      "absent, so 0: every second report of a category sends the batch");
    }
}

std::set<int64_t> categoriesOf(const Array* list) {
    std::set<int64_t> categories;
    for (const PropertyList& value : list != nullptr ? *list : Array()) {
        if (const auto category = value.integerValue()) categories.insert(*category);
    }
    return categories;
}

void lintEventLists(const std::string& path, const Dictionary& client, Findings& findings) {
    const Array* white = client.array("event_whitelist");
    const std::set<int64_t> whitelist = categoriesOf(white);
    const std::set<int64_t> blacklist = categoriesOf(client.array("event_blacklist"));
    if (white != nullptr && white->empty()) {
        findings.error(path + "/event_whitelist",
                       "is empty, which is not the same as absent: nothing passes");
    }
    for (const int64_t category : blacklist) {
        if (whitelist.contains(category)) {
            findings.error(path + "/event_whitelist",
                           std::to_string(category) + " is on event_blacklist too: it does not pass");
        } else if (white != nullptr && !white->empty()) {
            findings.warn(path + "/event_blacklist",
                          std::to_string(category) + " does nothing: it is not on event_whitelist");
        }
    }
}

}  // namespace

void lintEntry(const std::string& path, const Dictionary& client, Findings& findings) {
    lintCountries(path, client, findings);
    lintThresholds(path, client, findings);
    lintCountryThresholds(path, client, findings);
    lintEventLists(path, client, findings);
    lintFilters(path, client, findings);
    const PropertyList* custom = client.find("custom_clientId");
    if (custom != nullptr && custom->isNumber() && !custom->boolValue()) {
        findings.warn(path + "/custom_clientId", "its presence counts, not its value: this says yes");
    }
}

}  // namespace telvora::bag
