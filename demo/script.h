// SPDX-License-Identifier: Apache-2.0
//
// The reports of the demonstration, and their expected outcome.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plist/property_list.h"

namespace telvora::demo {

struct Report {
    std::string client;
    uint16_t category;
    uint16_t type;
    std::string manner;   // for people: "batched", "realtime", ...
    int64_t flag;         // 1 realtime, 2 promote
    Dictionary payload;   // as the client sends it; empty for the daemon's own reports
    std::string path;     // the expected path: "/events", "/realtime", or "" if it must not arrive
    Dictionary received;  // the expected payload
};

// The bag of the demonstration. Its clients are "player", which reports, "browser", which is sampled out, and
// those of a call: "call" itself, and "audio" and "video" below it.
Dictionary demoBag();

// A client's own reports lie between the daemon's start message and its finish and end messages.
constexpr size_t kFirstOwn = 1;
constexpr size_t kLastOfDaemon = 2;

// All reports of a client in order: the daemon's start message, the client's reports, the daemon's finish and
// end messages.
std::vector<Report> reportsOf(const std::string& client);

}  // namespace telvora::demo
