// SPDX-License-Identifier: Apache-2.0
//
// The settings that the daemon reads at its start (telvorad.defaults(5)). All others are read at each use.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "http/http_client.h"
#include "link/link_watch.h"
#include "outbox/outbox_store.h"
#include "platform/user_defaults.h"

namespace telvora {

struct Settings {
    // Directories from which clients may have files uploaded; without symbolic links.
    std::vector<std::filesystem::path> uploadDirectories;
    std::string vodexAdaptorPath;  // the shared object of the metrics adaptor
    std::chrono::milliseconds idleTime;
    std::chrono::milliseconds shutdownTime;
    uint64_t messageLogBytes;  // the most bytes of the message log
    bool keepBags;
    OutboxLimits outbox;
    LinkState spared;  // the states of the link in which only realtime reports leave
    HttpLink link;
};

Settings readSettings(UserDefaults& defaults);

// Logs the first unknown keys of the daemon's own domain at level 4: a misspelt setting has no effect.
void warnOfUnknownSettings(UserDefaults& defaults);

// Applies the setting "logLevel" and returns it.
int readLogLevel(UserDefaults& defaults);

}  // namespace telvora
