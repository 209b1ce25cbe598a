// SPDX-License-Identifier: Apache-2.0
//
// The public keys that verify bags: the files publicKey.der and publicKey-*.der of a directory, each a PKCS#1
// or SubjectPublicKeyInfo key. Several keys let the key of a fleet be replaced: the devices have the new one
// before the first bag that it signs.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace telvora {

// Further files of a directory count as absent.
inline constexpr size_t kMaxPublicKeys = 16;

struct PublicKeyFile {
    std::filesystem::path file;
    std::string der;
    std::optional<std::string> problem;  // why the key verifies no bag
    // The problem is that another user could change the file.
    bool isUntrusted = false;

    // The SHA-256 digest of the file in lower-case hexadecimal digits.
    std::string fingerprint() const;
};

// The keys of a directory in the order of their names. A file that an ordinary user could change
// (file_trust.h) has no `der`. Blocks on file I/O. Thread-safe.
std::vector<PublicKeyFile> readPublicKeys(const std::filesystem::path& directory);

}  // namespace telvora
