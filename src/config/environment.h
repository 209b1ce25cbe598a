// SPDX-License-Identifier: Apache-2.0
//
// The settings of the defaults domain that are read once per process.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "config/device_identity.h"
#include "platform/user_defaults.h"

namespace telvora {

// Selects the section of a bag. `none` is accepted as a setting, but no section matches it.
enum class EnvironmentType : uint32_t {
    none = 0,
    development = 1,
    zandorInternal = 2,
    seed = 3,
    release = 4
};

// The section's name in a bag; nothing for `none`.
std::optional<std::string> sectionNameForEnvironment(EnvironmentType type);

class Environment {
  public:
    // Both must outlive the environment.
    Environment(UserDefaults& defaults, const DeviceIdentity& identity)
        : defaults_(defaults), identity_(identity) {}

    // From the user default "environmentType", else by whether the build is internal. Computed on first use
    // and kept for the life of the process. Thread-safe.
    EnvironmentType userDefaultsEnvironment() const;

    // The bag server's base URL: the user default "telvora_storebag_url", else the built-in one for internal
    // or for all other builds. The setting is used as it stands and should have no trailing slash. Computed
    // on first use and kept. Thread-safe.
    const std::string& storebagBaseURL() const;

  private:
    UserDefaults& defaults_;
    const DeviceIdentity& identity_;
    mutable std::once_flag typeOnce_;
    mutable EnvironmentType type_ = EnvironmentType::none;
    mutable std::once_flag baseURLOnce_;
    mutable std::string baseURL_;
};

}  // namespace telvora
