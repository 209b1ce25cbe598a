// SPDX-License-Identifier: Apache-2.0
#include "platform/directories.h"

#include <cstdlib>
#include <string_view>

namespace telvora {

namespace {

std::filesystem::path directoryFrom(const char* variable, std::string_view fallback) {
    const char* value = std::getenv(variable);
    const std::string_view list = value != nullptr ? value : "";
    const std::string_view first = list.substr(0, list.find(':'));
    return first.empty() ? fallback : first;
}

}  // namespace

Directories Directories::fromEnvironment() {
    Directories directories;
    directories.runtime = directoryFrom("RUNTIME_DIRECTORY", "/run/telvora");
    directories.state = directoryFrom("STATE_DIRECTORY", "/var/lib/telvora");
    directories.configuration = directoryFrom("CONFIGURATION_DIRECTORY", "/etc/telvora");
    directories.logs = directoryFrom("LOGS_DIRECTORY", TELVORA_LOGS_DIRECTORY);
    directories.framework = directoryFrom("TELVORA_FRAMEWORK_DIR", TELVORA_FRAMEWORK_DIRECTORY);
    return directories;
}

}  // namespace telvora
