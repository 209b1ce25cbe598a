// SPDX-License-Identifier: Apache-2.0
//
// Filters that can never act: the first filter that fits a key decides about it.
#include <algorithm>

#include "backends/event_filters.h"
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
                   quoted(*action) + " is neither \"remove\" nor \"sha256\": the key is kept");
}

// Whether the lists of the entry keep all reports of a category from being sent.
bool isHeldBack(const Dictionary& client, int64_t category) {
    const auto holds = [category](const Array* list) {
        return std::any_of(list->begin(), list->end(),
                           [&](const PropertyList& value) { return value.integerValue() == category; });
    };
    const Array* white = client.array("event_whitelist");
    const Array* black = client.array("event_blacklist");
    return (white != nullptr && !holds(white)) || (black != nullptr && holds(black));
}

}  // namespace

void lintFilters(const std::string& path, const Dictionary& client, Findings& findings) {
    const Array* array = client.array("filters");
    if (array == nullptr) return;
    std::vector<EventFilter> filters;
    createFiltersFromArray(*array, filters);
    for (size_t i = 0; i < filters.size(); ++i) {
        const std::string own = element(path + "/filters", i);
        const auto* dictionary = (*array)[i].getIf<Dictionary>();
        const std::string* key = dictionary != nullptr ? dictionary->string("key") : nullptr;
        if (key == nullptr) continue;  // found already
        lintAction(own, *dictionary, findings);
        if (key->empty()) {
            findings.error(own + "/key", "is empty: it fits no key");
            continue;
        }
        const auto earlier = std::find_if(filters.begin(), filters.begin() + static_cast<std::ptrdiff_t>(i),
                                          [&](const EventFilter& f) { return covers(f, filters[i]); });
        if (earlier != filters.begin() + static_cast<std::ptrdiff_t>(i)) {
            findings.error(own, "is never reached: " +
                                    element("filters", static_cast<size_t>(earlier - filters.begin())) +
                                    " decides about all its keys");
        } else if (filters[i].method >= 0 && isHeldBack(client, filters[i].method)) {
            findings.warn(own + "/method", "reports of category " + std::to_string(filters[i].method) +
                                               " are not sent: see the event lists");
        }
    }
}

}  // namespace telvora::bag
