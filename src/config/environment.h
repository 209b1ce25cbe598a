// SPDX-License-Identifier: Apache-2.0
//
// The settings that are read once per process.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "config/device_identity.h"
#include "platform/user_defaults.h"

namespace telvora {

// Selects the section of a bag. `none` is a valid setting, but matches no section.
enum class EnvironmentType : uint32_t {
    none = 0,
    development = 1,
    zandorInternal = 2,
    seed = 3,
    release = 4
};

// The name of the section in a bag; std::nullopt for `none`.
std::optional<std::string> sectionNameForEnvironment(EnvironmentType type);

class Environment {
  public:
    // Both must outlive the environment.
    Environment(UserDefaults& defaults, const DeviceIdentity& identity)
        : defaults_(defaults), identity_(identity) {}

    // The user default "environmentType"; without it, zandorInternal on internal builds and release on
    // others. Computed once. Thread-safe.
    EnvironmentType userDefaultsEnvironment() const;

    // The base URL of the bag server: the user default "telvora_storebag_url"; without it, the built-in URL
    // for internal or for other builds. The setting is used unchanged, so it should have no trailing slash.
    // Computed once. Thread-safe.
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
