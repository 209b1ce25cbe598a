// SPDX-License-Identifier: Apache-2.0
//
// The directories that the service manager passes to a service (systemd.exec(5), RuntimeDirectory= and
// others).
#pragma once

#include <filesystem>

namespace telvora {

struct Directories {
    std::filesystem::path runtime;        // RUNTIME_DIRECTORY, default /run/telvora
    std::filesystem::path state;          // STATE_DIRECTORY, default /var/lib/telvora
    std::filesystem::path configuration;  // CONFIGURATION_DIRECTORY, default /etc/telvora
    std::filesystem::path logs;           // LOGS_DIRECTORY, default: the message log's own directory
    std::filesystem::path framework;      // TELVORA_FRAMEWORK_DIR, default <prefix>/share/telvora

    // Reads the environment. If a variable lists several directories separated by colons, the first one is
    // used.
    static Directories fromEnvironment();
};

}  // namespace telvora
