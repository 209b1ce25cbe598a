// SPDX-License-Identifier: Apache-2.0
//
// What the demonstration does, and what must come of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/property_list.h"

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

// The bag that the demonstration serves: clients "player", who reports, and "browser", who is sampled out.
Dictionary demoBag();

// All reports of a client, in the order in which they are made: the daemon's own start message first, its
// finish and end messages last.
std::vector<Report> reportsOf(const std::string& client);

}  // namespace telvora::demo
