// SPDX-License-Identifier: Apache-2.0
//
// The device property service: what this device says of itself, as strings. Of the sources of an answer the
// first that has one counts:
//
//     every key         <configuration directory>/device.plist, the administrator's word
//     UniqueDeviceID    40 lower-case hexadecimal digits, made from machine-id(5) by a hash bound to this
//                       system: stable, but neither the machine-id nor another program's idea of the device
//     ProductVersion    os-release(5) VERSION_ID
//     BuildVersion      os-release(5) BUILD_ID, IMAGE_VERSION, VERSION
//     HWModelStr        DMI board_name; device tree "model"
//     ProductType       DMI product_name; device tree "compatible", its first entry
//     SerialNumber      DMI product_serial, board_serial; device tree "serial-number"
//     DeviceName        the host name
//     ReleaseType       device.plist alone: "Internal" there makes an internal build
//
// DMI texts with which makers of boards fill what they left open count as no answer, and so does whatever
// this process may not read (the serial numbers are the superuser's).
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "plist/property_list.h"

namespace telvora {

// Keys: those above. Read once at construction; immutable afterwards, so safe from any thread.
class DeviceProperties {
  public:
    // Asks all sources; blocks on file I/O. `root` is where those outside the configuration directory stand,
    // for tests. A malformed device.plist is logged at level 4 and counts as absent.
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
