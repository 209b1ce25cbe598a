// SPDX-License-Identifier: Apache-2.0
#include "config/client_framework.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "plist/property_list_format.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr const char* kDefaultVersion = "8.0";

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

std::vector<PublicKeyFile> ClientFramework::publicKeyFiles() const {
    std::vector<PublicKeyFile> all;
    for (const std::filesystem::path& directory : {directory_, configurationDirectory_}) {
        if (directory.empty()) continue;
        std::vector<PublicKeyFile> keys = readPublicKeys(directory);
        std::move(keys.begin(), keys.end(), std::back_inserter(all));
    }
    return all;
}

std::vector<std::string> ClientFramework::publicKeyDers() const {
    std::vector<std::string> ders;
    for (PublicKeyFile& key : publicKeyFiles()) {
        if (key.isUntrusted) {
            TELVORA_LOG(kLogWarning, "ClientFramework: %s verifies no bag: %s", key.file.c_str(),
                        key.problem->c_str());
        } else if (!key.der.empty()) {
            ders.push_back(std::move(key.der));
        }
    }
    return ders;
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
