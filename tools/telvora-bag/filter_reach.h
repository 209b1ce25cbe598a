// SPDX-License-Identifier: Apache-2.0
//
// How far a filter protects user info. A batched report gets the session's user info anew as it is posted;
// that copy names neither category nor type, and so is filtered as a report of category 0 and type 0.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "policy/event_filters.h"

namespace telvora::bag {

using CategoryTest = std::function<bool(uint16_t category)>;

// A category and a type in which `filters[index]` acts: those that it names or, where it leaves them open,
// some that no other filter of its key names. `passes`: of which categories reports are sent.
struct FilterSubject {
    uint16_t category;
    uint16_t type;
};
// Nothing when there is none.
std::optional<FilterSubject> subjectOf(const std::vector<EventFilter>& filters, size_t index,
                                       const CategoryTest& passes);

// Whether the key is one that a user info can hold, and not a field of the daemon's own.
bool isUserInfoKey(std::string_view key);

// What the filters do to the value under a key of a report, or of user info without category and type.
FilterAction actionOn(const std::vector<EventFilter>& filters, std::string_view key,
                      const std::optional<FilterSubject>& subject);

// Whether less of a value is left by `action` than by `other`.
bool isStricter(FilterAction action, FilterAction other);

}  // namespace telvora::bag
