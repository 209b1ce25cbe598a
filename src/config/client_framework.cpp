// SPDX-License-Identifier: Apache-2.0
#include "config/client_framework.h"

#include <algorithm>
#include <utility>

#include "plist/property_list_format.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

constexpr const char* kDefaultVersion = "8.0";
// An RSA key of 16384 bits takes about 2 KiB; a much larger file is no key.
constexpr size_t kMaxKeyBytes = 64 << 10;

}  // namespace

ClientFramework ClientFramework::ofVersion(std::string version) {
    ClientFramework framework{{}};
    framework.version_ = std::move(version);
    return framework;
}

std::string ClientFramework::bundleVersion() const {
    if (version_) return *version_;
    const auto information = readPropertyListFile(directory_ / "Info.plist");
    if (!information) return kDefaultVersion;
    const auto* entries = information->getIf<Dictionary>();
    const std::string* version = entries != nullptr ? entries->string("CFBundleVersion") : nullptr;
    return version != nullptr ? *version : kDefaultVersion;
}

std::optional<std::string> ClientFramework::publicKeyDer() const {
    if (directory_.empty()) return std::nullopt;
    auto bytes = readRegularFile(directory_ / "publicKey.der", kMaxKeyBytes);
    if (!bytes || bytes->empty() || bytes->size() == kMaxKeyBytes) return std::nullopt;
    return std::move(*bytes);
}

std::array<uint8_t, 3> versionComponents(std::string_view version) {
    std::array<uint8_t, 3> components{};
    for (uint8_t& component : components) {
        const size_t end = std::min(version.find('.'), version.size());
        component = static_cast<uint8_t>(leadingInteger(version.substr(0, end)));
        version.remove_prefix(std::min(end + 1, version.size()));
    }
    return components;
}

}  // namespace telvora
