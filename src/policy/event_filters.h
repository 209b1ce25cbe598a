// SPDX-License-Identifier: Apache-2.0
//
// Filters that a bag applies to the keys of an event before it is sent, and the two predicates that match a
// bag's client entries with a session.
//
// Comparisons without regard to case compare the results of lowerCase() (util/letter_case.h), for texts whose
// forms have the same length in bytes. Thread-safe: no shared state.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/property_list.h"

namespace telvora {

enum class FilterAction : int32_t { keep = 0, remove = 1, sha256 = 2 };

struct EventFilter {
    int32_t method = -1;  // the event's "_method"; negative: any
    int32_t status = -1;  // the event's "_status"; negative: any
    FilterAction action = FilterAction::keep;
    std::string_view key;  // in the bag, without regard to case; empty: matches no key
};

// Replaces `filters` by those of a bag's "filters" array, in its order; an empty array leaves them unchanged.
// An element that is no dictionary, or without a key, never matches. The filters refer to the array's
// strings: the array must outlive them.
void createFiltersFromArray(const Array& array, std::vector<EventFilter>& filters);

// Called for each filter that removes or hashes a key.
using FilterObserver = std::function<void(const std::string& key, const EventFilter& filter)>;

// Applies to every key of the record the first filter that matches the key, the record's "_method" and its
// "_status" (0 if absent), both with their values before filtering. A number is hashed in the form in which
// it would be sent. A value that can't be sent stays, for the message to remove.
void filterEvent(const std::vector<EventFilter>& filters, Dictionary& record,
                 const FilterObserver& observer = {});

// SHA-256 (FIPS 180-4) of the text's first UTF-8 bytes, as many as it has UTF-16 code units, as 64 lower-case
// hexadecimal digits: servers that compute these digests count in the same way.
std::string convertIntoSHA256(std::string_view text);

using StringList = std::vector<std::string_view>;

// The elements of a comma-separated text, with their blanks; empty for null. They refer to the text.
StringList splitList(const std::string* text);

// Whether an element of the list equals the string without regard to case. An empty list gives `whitelist`;
// any other list gives the opposite for an absent string.
bool matchExactStringWithList(const StringList& list, const std::optional<std::string>& wholeString,
                              bool whitelist);

// The same if the string contains an element. No string contains an empty element, such as a stray comma
// makes.
bool matchStringWithList(const StringList& list, const std::optional<std::string>& wholeString,
                         bool whitelist);

}  // namespace telvora
