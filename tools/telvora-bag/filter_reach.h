// SPDX-License-Identifier: Apache-2.0
//
// Whether filters protect user info. The daemon adds the session's user info to a batched report when it
// posts it. That copy has no category and no type, and is filtered like a report of category 0 and type 0.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "policy/event_filters.h"

namespace telvora::bag {

using CategoryTest = std::function<bool(uint16_t category)>;

// A category and a type for which `filters[index]` acts: those that it names, else values that no other
// filter of its key names. `passes`: whether reports of a category are sent.
struct FilterSubject {
    uint16_t category;
    uint16_t type;
};
// `std::nullopt` if the filter never acts.
std::optional<FilterSubject> subjectOf(const std::vector<EventFilter>& filters, size_t index,
                                       const CategoryTest& passes);

// Whether user info can hold the key: it is not one of the daemon's own fields.
bool isUserInfoKey(std::string_view key);

// The action of the filters on a report's value under `key`, or on user info if `subject` is empty.
FilterAction actionOn(const std::vector<EventFilter>& filters, std::string_view key,
                      const std::optional<FilterSubject>& subject);

// Whether `action` leaves less of a value than `other`.
bool isStricter(FilterAction action, FilterAction other);

}  // namespace telvora::bag
