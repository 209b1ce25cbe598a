// SPDX-License-Identifier: Apache-2.0
//
// What a bag may do to single keys of an event before it leaves the device, and the two predicates that tell
// which of a bag's client entries a session is meant by.
//
// "Without regard to case" is what lowerCase() (util/letter_case.h) makes equal, as long as both forms
// take the same number of bytes. Thread-safe: no shared state.
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

// Replaces `filters` by those of a bag's "filters" array, in its order; an empty array leaves them as they
// are. An element that is no dictionary, or that has no key, never matches. The filters refer to the array's
// strings: it must outlive them.
void createFiltersFromArray(const Array& array, std::vector<EventFilter>& filters);

// Told of each filter that removes or hashes a key.
using FilterObserver = std::function<void(const std::string& key, const EventFilter& filter)>;

// Applies to every key of the record the first filter that matches the key, the record's "_method" and its
// "_status" (0 when absent), both as they stand before any filter acts. A number is hashed in the form in
// which it would be sent; a value that can't be sent at all is left for the message's own clean-up.
void filterEvent(const std::vector<EventFilter>& filters, Dictionary& record,
                 const FilterObserver& observer = {});

// SHA-256 (FIPS 180-4) of as many UTF-8 bytes of the text as the text has UTF-16 code units, as 64 lower-case
// hexadecimal digits: servers that compute these digests elsewhere count the same way.
std::string convertIntoSHA256(std::string_view text);

using StringList = std::vector<std::string_view>;

// The elements of a comma-separated text, nothing trimmed; none for null. They refer to the text.
StringList splitList(const std::string* text);

// Whether an element of the list equals the string without regard to case. An empty list gives `whitelist`; a
// list that is not empty, without a string, gives the opposite.
bool matchExactStringWithList(const StringList& list, const std::optional<std::string>& wholeString,
                              bool whitelist);

// The same, where the string needs only to contain an element. An empty element, as a stray comma leaves one,
// is contained in nothing.
bool matchStringWithList(const StringList& list, const std::optional<std::string>& wholeString,
                         bool whitelist);

}  // namespace telvora
