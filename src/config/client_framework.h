// SPDX-License-Identifier: Apache-2.0
//
// The resources of the client framework: a directory with Info.plist ("CFBundleVersion") and public keys.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/public_keys.h"

namespace telvora {

class ClientFramework {
  public:
    // The administrator may put further public keys into the configuration directory.
    explicit ClientFramework(std::filesystem::path directory,
                             std::filesystem::path configurationDirectory = {})
        : directory_(std::move(directory)), configurationDirectory_(std::move(configurationDirectory)) {}
    // A framework of this version, without files.
    static ClientFramework ofVersion(std::string version);

    // "CFBundleVersion" of Info.plist; "8.0" if absent. Reads the file at each call. Thread-safe.
    std::string bundleVersion() const;

    // The public keys of both directories, read at each call; those with a problem, too. Thread-safe.
    std::vector<PublicKeyFile> publicKeyFiles() const;
    // The bytes of the keys that may verify a bag. Logs a file that an ordinary user could change at level 4.
    std::vector<std::string> publicKeyDers() const;

  private:
    std::filesystem::path directory_;
    std::filesystem::path configurationDirectory_;
    std::optional<std::string> version_;  // replaces that of the file
};

// Major, middle and minor number of a dotted version. Missing components are 0, each is cut to 8 bits,
// further ones are ignored.
std::array<uint8_t, 3> versionComponents(std::string_view version);

}  // namespace telvora
