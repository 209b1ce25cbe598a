// SPDX-License-Identifier: Apache-2.0
//
// Event records: the flat dictionary that one report becomes. All times are seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plist/property_list.h"
#include "util/time_value.h"

namespace telvora {

// What a backend knows of a report beside the client's payload. References live for the call.
struct EventFields {
    double startTimeStamp;  // of the session, since 1970
    TimeValue timestamp;    // of the report
    std::string_view sender;
    uint16_t clientVersion;
    const std::optional<std::string>& combinedSessionID;
    std::optional<uint32_t> numericSessionID;  // stands in for the combined one where present
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

// A new record: the payload, overwritten by the fields, overwritten by the user info (null: none). Absent
// strings are left out.
Dictionary newEventDictfromPayload(const std::optional<Dictionary>& payload, const EventFields& fields,
                                   const Dictionary* userInfo);

// Bytes that the dictionary occupies, nearly.
size_t approximateSize(const Dictionary& dictionary);

}  // namespace telvora
