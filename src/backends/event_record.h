// SPDX-License-Identifier: Apache-2.0
//
// Event records: the flat dictionary made of a report. All times are in seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plist/property_list.h"
#include "util/time_value.h"

namespace telvora {

// Fields of an event beside the client's payload. References live for the call.
struct EventFields {
    double startTimeStamp;  // of the session, since 1970
    TimeValue timestamp;    // of the report
    std::string_view sender;
    uint16_t clientVersion;
    const std::optional<std::string>& combinedSessionID;
    std::optional<uint32_t> numericSessionID;  // replaces the combined one if present
    uint16_t eventNumber;
    uint16_t method;
    uint16_t status;
    const std::optional<std::string>& productFamily;
    const std::optional<std::string>& productModel;
    const std::optional<std::string>& osVersion;
    const std::optional<std::string>& build;
    bool internal;
    std::string_view reportVersion;
    long timezoneOffset;  // from GMT, east positive
};

// Makes a record of the payload, the fields and the user info (may be null). Of equal keys, the user info
// wins over the fields and these over the payload. Absent strings make no entry.
Dictionary newEventDictfromPayload(const std::optional<Dictionary>& payload, const EventFields& fields,
                                   const Dictionary* userInfo);

// Bytes that the dictionary occupies, as its strings and arrays have reserved them. Does not count what it
// has reserved for more entries itself.
size_t approximateSize(const Dictionary& dictionary);

}  // namespace telvora
