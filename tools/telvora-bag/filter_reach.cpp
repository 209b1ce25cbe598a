// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/filter_reach.h"

#include <set>

namespace telvora::bag {

namespace {

constexpr std::string_view kValue = "value";

// The number that a filter names, or the smallest one from 1 that no filter of its key names.
std::optional<uint16_t> numberFor(const std::vector<EventFilter>& filters, const EventFilter& own,
                                  int32_t EventFilter::*member, const CategoryTest& isPossible) {
    std::set<int32_t> named;
    for (const EventFilter& filter : filters) {
        if (matchExactStringWithList({filter.key}, std::string(own.key), true)) named.insert(filter.*member);
    }
    const bool isOpen = own.*member < 0;
    for (int32_t number = isOpen ? 1 : own.*member; number <= UINT16_MAX; ++number) {
        const auto candidate = static_cast<uint16_t>(number);
        if (isPossible(candidate) && !(isOpen && named.contains(number))) return candidate;
        if (!isOpen) break;
    }
    return std::nullopt;
}

Dictionary recordOf(std::string_view key, const std::optional<FilterSubject>& subject) {
    Dictionary record{{std::string(key), kValue}};
    if (subject) {
        record.set("_method", unsigned{subject->category});
        record.set("_status", unsigned{subject->type});
    }
    return record;
}

int strictness(FilterAction action) {
    return action == FilterAction::remove ? 2 : action == FilterAction::sha256 ? 1 : 0;
}

}  // namespace

std::optional<FilterSubject> subjectOf(const std::vector<EventFilter>& filters, size_t index,
                                       const CategoryTest& passes) {
    const EventFilter& own = filters[index];
    const auto category = numberFor(filters, own, &EventFilter::method, passes);
    const auto type = numberFor(filters, own, &EventFilter::status, [](uint16_t) { return true; });
    if (!category || !type) return std::nullopt;
    const FilterSubject subject{*category, *type};
    bool decides = false;
    Dictionary record = recordOf(own.key, subject);
    filterEvent(filters, record, [&](const std::string&, const EventFilter& filter) {
        if (&filter == &own) decides = true;
    });
    return decides ? std::optional(subject) : std::nullopt;
}

bool isUserInfoKey(std::string_view key) {
    return !key.empty() && key.front() != '_' && !matchExactStringWithList({key}, "eventTime", true);
}

FilterAction actionOn(const std::vector<EventFilter>& filters, std::string_view key,
                      const std::optional<FilterSubject>& subject) {
    Dictionary record = recordOf(key, subject);
    filterEvent(filters, record);
    const std::string* left = record.string(key);
    if (left == nullptr) return FilterAction::remove;
    return *left == kValue ? FilterAction::keep : FilterAction::sha256;
}

bool isStricter(FilterAction action, FilterAction other) {
    return strictness(action) > strictness(other);
}

}  // namespace telvora::bag
