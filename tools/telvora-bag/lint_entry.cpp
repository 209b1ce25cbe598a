// SPDX-License-Identifier: Apache-2.0
//
// Keys of an entry that contradict or cancel each other.
#include <algorithm>
#include <set>

#include "platform/locale.h"
#include "policy/client_entry.h"
#include "telvora-bag/lint_rules.h"

namespace telvora::bag {

namespace {

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// A code has two letters; the daemon searches for it in the list's elements.
void lintCountries(const std::string& path, const ClientEntry& entry, Findings& findings) {
    for (const std::string_view part : splitList(entry.countries())) {
        if (part.empty() || part.front() == ' ' || part.back() == ' ') continue;  // already reported
        if (part.size() > 2 || !std::all_of(part.begin(), part.end(), isLetter)) {
            findings.error(path + "/locale_whitelist",
                           inQuotes(part) + " is in no country code: it never matches");
        } else if (part.size() == 1) {
            findings.warn(path + "/locale_whitelist",
                          inQuotes(part) + " matches every country code with that letter");
        }
    }
}

void lintCountryThreshold(const std::string& path, const ClientEntry& entry, const Dictionary& own,
                          const std::string& country, Findings& findings) {
    if (countryCodeOf(country) != country) {
        findings.error(path,
                       inQuotes(country) + " is not a country code in capital letters: it never matches");
    } else if (entry.thresholdOfCountry(country) != &own) {
        findings.error(path, inQuotes(country) + " is never reached: an earlier element has it");
    } else if (!entry.admitsCountry(country)) {
        findings.error(path, inQuotes(country) + " is never reached: it is not in locale_whitelist");
    }
}

void lintCountryThresholds(const std::string& path, const ClientEntry& entry, Findings& findings) {
    const Array* elements = entry.content().array("per_country_sampling_thresholds");
    for (size_t i = 0; elements != nullptr && i < elements->size(); ++i) {
        const auto* content = (*elements)[i].getIf<Dictionary>();
        const Array* countries = content != nullptr ? content->array("country") : nullptr;
        if (countries == nullptr) continue;
        const std::string own = element(path + "/per_country_sampling_thresholds", i) + "/country";
        if (countries->empty()) findings.error(own, "is empty: the element matches no country");
        for (const PropertyList& value : *countries) {
            if (const auto* country = value.getIf<std::string>())
                lintCountryThreshold(own, entry, *content, *country, findings);
        }
    }
}

void lintThresholds(const std::string& path, const ClientEntry& entry, Findings& findings) {
    const auto threshold = entry.samplingThreshold();
    const auto override = entry.overrideSampling();
    if (threshold && override && *override > 0 && *override < *threshold &&
        !entry.content().contains("per_country_sampling_thresholds")) {
        findings.warn(path + "/override_sampling",
                      "is below sampling_threshold: it has the effect of 0, no session is sampled out");
    }
    if (!entry.content().contains("event_threshold") && entry.batchEvents().value_or(true)) {
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

void lintEventLists(const std::string& path, const ClientEntry& entry, Findings& findings) {
    const Array* white = entry.eventWhitelist();
    const std::set<int64_t> whitelist = categoriesOf(white);
    const std::set<int64_t> blacklist = categoriesOf(entry.eventBlacklist());
    if (white != nullptr && white->empty()) {
        findings.error(path + "/event_whitelist", "is empty, which differs from absent: no report passes");
    }
    for (const int64_t category : blacklist) {
        if (whitelist.contains(category)) {
            findings.error(path + "/event_whitelist",
                           std::to_string(category) + " is on event_blacklist too: it does not pass");
        } else if (white != nullptr && !white->empty()) {
            findings.warn(path + "/event_blacklist",
                          std::to_string(category) + " has no effect: it is not on event_whitelist");
        }
    }
}

}  // namespace

void lintEntry(const std::string& path, const Dictionary& client, Findings& findings) {
    const ClientEntry entry(client);
    lintCountries(path, entry, findings);
    lintThresholds(path, entry, findings);
    lintCountryThresholds(path, entry, findings);
    lintEventLists(path, entry, findings);
    lintFilters(path, entry, findings);
    const PropertyList* custom = client.find("custom_clientId");
    if (custom != nullptr && custom->isNumber() && !custom->boolValue()) {
        findings.warn(path + "/custom_clientId", "its presence counts, not its value: it is in effect");
    }
}

}  // namespace telvora::bag
