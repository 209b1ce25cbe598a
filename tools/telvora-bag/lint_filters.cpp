// SPDX-License-Identifier: Apache-2.0
//
// Filters that never act, since the first filter that matches a key decides about it, and filters that do not
// protect user info.
#include <algorithm>

#include "telvora-bag/filter_reach.h"
#include "telvora-bag/lint_rules.h"

namespace telvora::bag {

namespace {

bool covers(const EventFilter& earlier, const EventFilter& later) {
    return (earlier.method < 0 || earlier.method == later.method) &&
           (earlier.status < 0 || earlier.status == later.status) &&
           matchExactStringWithList({earlier.key}, std::string(later.key), true);
}

void lintAction(const std::string& path, const Dictionary& filter, Findings& findings) {
    constexpr std::string_view kActions[] = {"remove", "sha256", "keep"};
    const std::string* action = filter.string("action");
    if (action == nullptr || std::ranges::find(kActions, *action) != std::end(kActions)) return;
    findings.error(path + "/action",
                   inQuotes(*action) + " is neither \"remove\" nor \"sha256\": the key is kept");
}

bool isCategory(int32_t number) {
    return number >= 0 && number <= UINT16_MAX;
}

bool passesLists(const ClientEntry& entry, uint16_t category) {
    const Array* white = entry.eventWhitelist();
    const Array* black = entry.eventBlacklist();
    return (white == nullptr || listHoldsCategory(*white, category)) &&
           (black == nullptr || !listHoldsCategory(*black, category));
}

void lintUserInfo(const std::string& path, const ClientEntry& entry, const std::vector<EventFilter>& filters,
                  size_t index, Findings& findings) {
    const std::string_view key = filters[index].key;
    const auto subject =
        subjectOf(filters, index, [&entry](uint16_t category) { return passesLists(entry, category); });
    if (!subject || !isUserInfoKey(key)) return;
    const FilterAction inUserInfo = actionOn(filters, key, {});
    if (!isStricter(actionOn(filters, key, subject), inUserInfo)) return;
    findings.warn(path, "does not protect user info: batched reports have it " +
                            std::string(inUserInfo == FilterAction::sha256 ? "hashed" : "in clear") +
                            ", as it is filtered there like a report of category 0 and type 0");
}

}  // namespace

void lintFilters(const std::string& path, const ClientEntry& entry, Findings& findings) {
    const Array* array = entry.filters();
    if (array == nullptr) return;
    std::vector<EventFilter> filters;
    createFiltersFromArray(*array, filters);
    for (size_t i = 0; i < filters.size(); ++i) {
        const std::string own = element(path + "/filters", i);
        const auto* dictionary = (*array)[i].getIf<Dictionary>();
        const std::string* key = dictionary != nullptr ? dictionary->string("key") : nullptr;
        if (key == nullptr) continue;  // already reported
        lintAction(own, *dictionary, findings);
        if (key->empty()) {
            findings.error(own + "/key", "is empty: it matches no key");
            continue;
        }
        const auto earlier = std::find_if(filters.begin(), filters.begin() + static_cast<std::ptrdiff_t>(i),
                                          [&](const EventFilter& f) { return covers(f, filters[i]); });
        if (earlier != filters.begin() + static_cast<std::ptrdiff_t>(i)) {
            findings.error(own, "is never reached: " +
                                    element("filters", static_cast<size_t>(earlier - filters.begin())) +
                                    " decides about all its keys");
        } else if (isCategory(filters[i].method) &&
                   !passesLists(entry, static_cast<uint16_t>(filters[i].method))) {
            findings.warn(own + "/method", "reports of category " + std::to_string(filters[i].method) +
                                               " are not sent: see the event lists");
        } else {
            lintUserInfo(own, entry, filters, i, findings);
        }
    }
}

}  // namespace telvora::bag
