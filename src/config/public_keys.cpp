// SPDX-License-Identifier: Apache-2.0
#include "config/public_keys.h"

#include <algorithm>
#include <system_error>

#include "platform/digest.h"
#include "util/directory_names.h"
#include "util/file_trust.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

// An RSA key of 16384 bits takes about 2 KiB; a much larger file is no key.
constexpr size_t kMaxKeyBytes = 64 << 10;

bool isKeyName(const std::string& name) {
    return name == "publicKey.der" || (name.starts_with("publicKey-") && name.ends_with(".der"));
}

std::vector<std::filesystem::path> keyFilesOf(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> files;
    for (const std::string& name : namesIn(directory).value_or(std::vector<std::string>())) {
        if (isKeyName(name)) files.push_back(directory / name);
    }
    std::sort(files.begin(), files.end());
    if (files.size() > kMaxPublicKeys) files.resize(kMaxPublicKeys);
    return files;
}

// Why another user could put another file in the place of a symbolic link's target.
std::optional<std::string> whyTargetChangeable(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_symlink(path, error)) return std::nullopt;
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    return error ? error.message() : whyEntriesChangeable(target.parent_path());
}

PublicKeyFile readKey(const std::filesystem::path& path) {
    PublicKeyFile key{path, {}, {}, false};
    const auto opened = RegularFile::open(path);
    if (!opened) {
        key.problem = opened.error();
        return key;
    }
    key.problem = whyChangeable(opened->status);
    if (!key.problem) key.problem = whyTargetChangeable(path);
    key.isUntrusted = key.problem.has_value();
    if (key.isUntrusted) return key;
    auto bytes = opened->read(kMaxKeyBytes);
    if (!bytes) {
        key.problem = bytes.error();
    } else if (const auto parsed = RsaPublicKey::fromDer(*bytes); !parsed) {
        key.problem = parsed.error().reason;
    }
    if (bytes && bytes->size() < kMaxKeyBytes) key.der = std::move(*bytes);
    return key;
}

}  // namespace

std::string PublicKeyFile::fingerprint() const {
    return sha256Hex(der);
}

std::vector<PublicKeyFile> readPublicKeys(const std::filesystem::path& directory) {
    std::vector<PublicKeyFile> keys;
    const std::vector<std::filesystem::path> files = keyFilesOf(directory);
    const auto changeable = files.empty() ? std::nullopt : whyEntriesChangeable(directory);
    keys.reserve(files.size());
    for (const std::filesystem::path& file : files) {
        keys.push_back(changeable ? PublicKeyFile{file, {}, changeable, true} : readKey(file));
    }
    return keys;
}

}  // namespace telvora
