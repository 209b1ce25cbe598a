// SPDX-License-Identifier: Apache-2.0
//
// What the demonstration does, and what must come of it.
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
    Dictionary payload;   // as the client sends it; of the daemon's own reports, unknown here
    std::string path;     // where it must arrive: "/events", "/realtime", or "" for nowhere
    Dictionary received;  // what must be left of the payload
};

// The bag that the demonstration serves: clients "player", who reports, "browser", who is sampled out, and
// those of a call: "call" itself, and "audio" and "video" below it.
Dictionary demoBag();

// The reports that the client itself makes stand between the daemon's start message and its finish and end
// messages.
constexpr size_t kFirstOwn = 1;
constexpr size_t kLastOfDaemon = 2;

// All reports of a client, in the order in which they are made: the daemon's own start message first, its
// finish and end messages last.
std::vector<Report> reportsOf(const std::string& client);

}  // namespace telvora::demo
