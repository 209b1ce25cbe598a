// SPDX-License-Identifier: Apache-2.0
//
// The resources of the client framework: a directory with Info.plist ("CFBundleVersion") and publicKey.der.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace telvora {

class ClientFramework {
  public:
    explicit ClientFramework(std::filesystem::path directory) : directory_(std::move(directory)) {}
    // A framework of this version, without files.
    static ClientFramework ofVersion(std::string version);

    // "CFBundleVersion" of Info.plist; "8.0" if absent. Reads the file at each call. Thread-safe.
    std::string bundleVersion() const;

    // The bytes of publicKey.der (PKCS#1 or SubjectPublicKeyInfo), read at each call; std::nullopt if it
    // can't be read.
    std::optional<std::string> publicKeyDer() const;

  private:
    std::filesystem::path directory_;
    std::optional<std::string> version_;  // replaces that of the file
};

// Major, middle and minor number of a dotted version. Missing components are 0, each is cut to 8 bits,
// further ones are ignored.
std::array<uint8_t, 3> versionComponents(std::string_view version);

}  // namespace telvora
