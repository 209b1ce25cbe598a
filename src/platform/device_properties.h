// SPDX-License-Identifier: Apache-2.0
//
// The device property service: properties of this device, as strings. The first source with a value gives the
// answer:
//
//     every key         <configuration directory>/device.plist, written by the administrator
//     UniqueDeviceID    40 lower-case hexadecimal digits: a hash of machine-id(5) for this system alone,
//                       stable, but neither the machine-id nor the device ID of another program
//     ProductVersion    os-release(5) VERSION_ID
//     BuildVersion      os-release(5) BUILD_ID, IMAGE_VERSION, VERSION
//     HWModelStr        DMI board_name; device tree "model"
//     ProductType       DMI product_name; device tree "compatible", its first entry
//     SerialNumber      DMI product_serial, board_serial; device tree "serial-number"
//     DeviceName        the host name
//     ReleaseType       device.plist alone: "Internal" there makes an internal build
//     CountryCode       device.plist alone: the country, instead of the locale's
//
// DMI placeholders such as "Default string" are no answers. Neither are files that this process may not read
// (serial numbers are readable by root only).
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/user_defaults.h"
#include "plist/property_list.h"

namespace telvora {

// Immutable after construction, so safe from any thread.
class DeviceProperties {
  public:
    // Reads all sources; blocks on file I/O. `root`: the directory of the sources outside the configuration
    // directory, for tests. A malformed device.plist is logged at level 4 and counts as absent.
    explicit DeviceProperties(const std::filesystem::path& configurationDirectory,
                              const std::filesystem::path& root = "/");
    // Those of this device, with the setting "deviceName" as "DeviceName" if there is one.
    DeviceProperties(const std::filesystem::path& configurationDirectory, UserDefaults& defaults);
    // Exactly these properties.
    explicit DeviceProperties(Dictionary properties) : properties_(std::move(properties)) {}

    // The value of `key`, one of the keys above; std::nullopt if no source has a value.
    std::optional<std::string> answer(std::string_view key) const;

    const Dictionary& all() const { return properties_; }

  private:
    Dictionary properties_;
};

}  // namespace telvora
