// SPDX-License-Identifier: Apache-2.0
//
// The dashboard's datagram and its rendering as a line of text. docs/formats.md describes both, with an
// example. All functions are pure and callable from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "config/device_identity.h"
#include "plist/property_list.h"
#include "util/time_value.h"

namespace telvora {

constexpr size_t kDashboardHeaderBytes = 64;
constexpr size_t kDashboardTextBytes = 1024;  // with the terminating zero, which is not sent
constexpr size_t kDashboardDeviceIDBytes = 40;
constexpr size_t kDashboardEventNumberOffset = 60;

// Fields of the header, before some of them are complemented.
struct DashboardFields {
    uint8_t version = 0;
    uint8_t componentType = 0;
    TimeValue timestamp;
    uint32_t sessionID = 0;
    uint16_t clientVersion = 0;
    uint16_t method = 0;
    uint16_t respCode = 0;
    DeviceIDBuffer deviceID{};
    uint16_t eventNumber = 0;
    bool reliable = false;
    bool fromProfile = false;
};

// Header and text in one buffer of maximum size. The text ends with a zero byte.
struct DashboardDatagram {
    std::array<char, kDashboardHeaderBytes + kDashboardTextBytes> buffer;
    size_t length = 0;  // of the datagram, without the zero

    std::string_view bytes() const { return {buffer.data(), length}; }
    std::string_view text() const { return bytes().substr(kDashboardHeaderBytes); }
};

// Fills the datagram with a report. If the text is full, the pair of the payload that does not fit is
// truncated and all further ones are left out.
void fillDashboardDatagram(DashboardDatagram& datagram, const DashboardFields& fields,
                           const Dictionary& payload);

// Renders the datagram as in the collector's logs:
//
//     12.344 0123456789012345678901234567890123456789 127.0.0.1 VC     3   777     1     4     5  key=value
std::string renderDashboardDatagram(const DashboardDatagram& datagram);

// A string unchanged; a number in decimal without an exponent, in the shortest form that reads back as the
// same value; true as "1", false as "0"; "null" for other types.
std::string descriptionForObject(const PropertyList& object);

// Removes line feeds, and puts a backslash before every backslash and "=". Returns "empty" if the result
// would be empty.
std::string sanitize(std::string_view text);

}  // namespace telvora
