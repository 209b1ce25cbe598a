// SPDX-License-Identifier: Apache-2.0
#include "config/device_identity.h"

#include <algorithm>

#include "platform/uuid.h"
#include "telvora/keys.h"
#include "util/letter_case.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr std::string_view kClientPrefix = "uuid:";
constexpr std::string_view kRespectsConsent = "uuidRespectDnu";
constexpr std::string_view kOverridesConsent = "uuidOverrideDnu";

}  // namespace

DeviceIdentity::DeviceIdentity(const DeviceProperties& properties, UserDefaults& defaults)
    : properties_(properties),
      defaults_(defaults),
      isInternal_(properties.answer("ReleaseType") == "Internal"),
      processIdentifier_(randomUuidString()) {}

void DeviceIdentity::copyUniqueDeviceID(DeviceIDBuffer& buffer) const {
    const std::optional<std::string> identifier = properties_.answer("UniqueDeviceID");
    if (!identifier || identifier->size() >= buffer.size()) return;
    std::copy_n(identifier->c_str(), identifier->size() + 1, buffer.begin());
    buffer.back() = '\0';
}

std::string DeviceIdentity::getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& clientIdentifier, const std::optional<std::string>& suffix) const {
    const std::string key =
        std::string(kClientPrefix) + clientIdentifier.value_or("") + ":" + suffix.value_or("");
    std::string identifier = persistentIdentifier(key);
    TELVORA_LOG(kLogInfo, "getPersistentIdentifierForCustomClientIDSuffix: The value for %s: %s", key.c_str(),
                identifier.c_str());
    return identifier;
}

std::string DeviceIdentity::getPersistentIdentifierForDNU(bool respectsConsent) const {
    return persistentIdentifier(std::string(respectsConsent ? kRespectsConsent : kOverridesConsent));
}

bool DeviceIdentity::isIdentifierKey(std::string_view key) {
    return key.starts_with(kClientPrefix) || key == kRespectsConsent || key == kOverridesConsent;
}

bool DeviceIdentity::diagnosticsConsent() const {
    return defaults_.boolean(kConsentDomain, kConsentKey);
}

// A value that can't be written stays in memory under its key, so its failure is logged only once.
std::string DeviceIdentity::persistentIdentifier(const std::string& key) const {
    const MutexLock lock(identifierMutex_);
    if (std::optional<std::string> stored = defaults_.string(kTelvoraDefaultsDomain, key)) return *stored;
    std::string created = randomUuidString();
    const auto written = defaults_.set(kTelvoraDefaultsDomain, key, created);
    if (!written) {
        TELVORA_LOG(kLogError, "persistentIdentifier: Could not store the value for %s: %s", key.c_str(),
                    written.error().c_str());
    }
    return created;
}

std::string clientIdentifierForUserInfo(const Dictionary& userInfo) {
    const auto lowerCased = [&](std::string_view key) {
        const std::string* name = userInfo.string(key);
        return name != nullptr ? lowerCase(*name) : std::string{};
    };
    return lowerCased(kTelvoraUserInfoClientName) + ":" + lowerCased(kTelvoraUserInfoServiceName);
}

}  // namespace telvora
