// SPDX-License-Identifier: Apache-2.0
//
// The device property service: what this device says of itself, as strings.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/property_list.h"

namespace telvora {

// Keys: "UniqueDeviceID", "ProductVersion", "BuildVersion", "HWModelStr", "SerialNumber", "DeviceName",
// "ProductType", "ReleaseType". Read once at construction; immutable afterwards, so safe from any thread.
class DeviceProperties {
  public:
    // Reads <configuration directory>/device.plist (its strings win), then os-release(5), machine-id(5), DMI
    // or the device tree, and the host name. `root` is where those stand, for tests.
    explicit DeviceProperties(const std::filesystem::path& configurationDirectory,
                              const std::filesystem::path& root = "/");
    // Exactly these properties.
    explicit DeviceProperties(Dictionary properties) : properties_(std::move(properties)) {}

    // The answer to `key`, or nothing.
    std::optional<std::string> answer(std::string_view key) const;

    // All answers, for people who ask what the daemon sees.
    const Dictionary& all() const { return properties_; }

  private:
    Dictionary properties_;
};

}  // namespace telvora
