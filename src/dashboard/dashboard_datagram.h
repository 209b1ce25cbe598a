// SPDX-License-Identifier: Apache-2.0
//
// The dashboard's datagram, bit for bit, and its rendering as a line of text. docs/formats.md describes both
// with a worked example. Pure functions, callable from any thread.
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
constexpr size_t kDashboardTextBytes = 1024;  // with the terminating zero, which isn't sent
constexpr size_t kDashboardDeviceIDBytes = 40;
constexpr size_t kDashboardEventNumberOffset = 60;

// What the header tells, before any of it is complemented.
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

// Header and text in one buffer of the greatest size; the text ends with a zero byte.
struct DashboardDatagram {
    std::array<char, kDashboardHeaderBytes + kDashboardTextBytes> buffer;
    size_t length = 0;  // of what is sent: without the zero

    std::string_view bytes() const { return {buffer.data(), length}; }
    std::string_view text() const { return bytes().substr(kDashboardHeaderBytes); }
};

// Fills the datagram with a report. Of the payload, as much as the text has room for: the pair that doesn't
// fit any more is cut, further ones are left out.
void fillDashboardDatagram(DashboardDatagram& datagram, const DashboardFields& fields,
                           const Dictionary& payload);

// The datagram as the collector's logs show it:
//
//     12.344 0123456789012345678901234567890123456789 127.0.0.1 VC     3   777     1     4     5  key=value
std::string renderDashboardDatagram(const DashboardDatagram& datagram);

// A string itself; a number in decimal without an exponent, with the fewest digits that tell it from all
// others (true as 1); "null" for everything else.
std::string descriptionForObject(const PropertyList& object);

// The text without line feeds, every backslash doubled and every "=" preceded by one; "empty" if that leaves
// nothing.
std::string sanitize(std::string_view text);

}  // namespace telvora
