// SPDX-License-Identifier: Apache-2.0
//
// Decodes the dashboard's datagrams according to docs/formats.md. Shares no code with the sender.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <utility>
#include <vector>

#include "plist/property_list.h"

namespace telvora::lab {

struct DashboardReport {
    uint8_t version = 0;
    uint8_t componentType = 0;
    double time = 0;  // seconds since 1970
    uint32_t session = 0;
    uint16_t clientVersion = 0;
    uint16_t method = 0;
    uint16_t responseCode = 0;
    std::string device;
    uint16_t eventNumber = 0;
    bool wantsAcknowledgement = false;
    bool configuredByBag = false;
    std::string text;
};

// Fails with a reason if the bytes are not exactly one such datagram.
tl::expected<DashboardReport, std::string> decodeDashboardDatagram(std::string_view datagram);

// The keys and values of a report's text, in its order. A truncated rest without "=" is left out.
std::vector<std::pair<std::string, std::string>> dashboardPairs(std::string_view text);

// The acknowledgement of a decoded datagram.
std::string acknowledgementFor(std::string_view datagram);

// The report as text for people, with its component by code.
Dictionary describe(const DashboardReport& report);

}  // namespace telvora::lab
