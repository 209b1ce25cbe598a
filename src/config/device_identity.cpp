// SPDX-License-Identifier: Apache-2.0
#include "config/device_identity.h"

#include <algorithm>
#include <vector>

#include "async/work_pool.h"
#include "platform/locale.h"
#include "platform/uuid.h"
#include "telvora/keys.h"
#include "util/letter_case.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr std::string_view kClientPrefix = "uuid:";
constexpr std::string_view kRespectsConsent = "uuidRespectDnu";
constexpr std::string_view kOverridesConsent = "uuidOverrideDnu";

// The keys of a stored identifier that counts against a user's bound; others are plain strings.
constexpr std::string_view kIdentifier = "identifier";
constexpr std::string_view kUser = "user";

std::optional<std::string> identifierIn(const std::optional<PropertyList>& stored) {
    if (!stored) return std::nullopt;
    const auto* entry = stored->getIf<Dictionary>();
    const auto* text = entry != nullptr ? entry->string(kIdentifier) : stored->getIf<std::string>();
    return text != nullptr ? std::optional(*text) : std::nullopt;
}

// The reason why no further identifier of a client is kept; std::nullopt if it is.
std::optional<std::string> whyRefused(const Dictionary& kept, const std::string& key,
                                      std::optional<uid_t> user) {
    if (!key.starts_with(kClientPrefix)) return std::nullopt;
    if (key.size() > kMaxIdentifierKeyBytes) {
        return "its key is longer than " + std::to_string(kMaxIdentifierKeyBytes) + " bytes";
    }
    if (kept.size() >= kMaxIdentifiers) return std::to_string(kMaxIdentifiers) + " identifiers are kept";
    const auto ofUser = std::count_if(kept.begin(), kept.end(), [user](const auto& entry) {
        const auto* stored = entry.value.template getIf<Dictionary>();
        return user && stored != nullptr && stored->integer(kUser) == static_cast<int64_t>(*user);
    });
    if (static_cast<size_t>(ofUser) < kMaxIdentifiersOfUser) return std::nullopt;
    return std::to_string(kMaxIdentifiersOfUser) + " identifiers of user " + std::to_string(*user) +
           " are kept";
}

// A key as log lines have it.
std::string shortened(const std::string& key) {
    return key.size() <= kMaxIdentifierKeyBytes ? key : key.substr(0, kMaxIdentifierKeyBytes) + "...";
}

}  // namespace

DeviceIdentity::DeviceIdentity(const DeviceProperties& properties, UserDefaults& defaults)
    : properties_(properties),
      defaults_(defaults),
      isInternal_(properties.answer("ReleaseType") == "Internal"),
      processIdentifier_(randomUuidString()),
      texts_(std::make_shared<const DeviceTexts>(DeviceTexts{.name = deviceName(),
                                                             .osVersion = productVersion(),
                                                             .build = buildVersion(),
                                                             .hardwareType = productType()})) {}

std::optional<std::string> DeviceIdentity::countryCode() const {
    const std::optional<std::string> given = countryCodeOf(properties_.answer("CountryCode").value_or(""));
    return given ? given : currentCountryCode();
}

void DeviceIdentity::copyUniqueDeviceID(DeviceIDBuffer& buffer) const {
    const std::optional<std::string> identifier = properties_.answer("UniqueDeviceID");
    if (!identifier || identifier->size() >= buffer.size()) return;
    std::copy_n(identifier->c_str(), identifier->size() + 1, buffer.begin());
    buffer.back() = '\0';
}

std::string DeviceIdentity::getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& clientIdentifier, const std::optional<std::string>& suffix,
    std::optional<uid_t> user) const {
    const std::string key =
        std::string(kClientPrefix) + clientIdentifier.value_or("") + ":" + suffix.value_or("");
    std::string identifier = persistentIdentifier(key, user);
    TELVORA_LOG(kLogInfo, "getPersistentIdentifierForCustomClientIDSuffix: The value for %s: %s",
                shortened(key).c_str(), identifier.c_str());
    return identifier;
}

std::string DeviceIdentity::getPersistentIdentifierForDNU(bool respectsConsent) const {
    return persistentIdentifier(std::string(respectsConsent ? kRespectsConsent : kOverridesConsent),
                                std::nullopt);
}

std::shared_ptr<const std::string> DeviceIdentity::sharedIdentifierForDNU(bool respectsConsent) const {
    std::string identifier = getPersistentIdentifierForDNU(respectsConsent);
    const MutexLock lock(sharedMutex_);
    auto& shared = shared_[respectsConsent ? 1 : 0];
    if (!shared || *shared != identifier) shared = std::make_shared<const std::string>(std::move(identifier));
    return shared;
}

bool DeviceIdentity::isIdentifierKey(std::string_view key) {
    return key.starts_with(kClientPrefix) || key == kRespectsConsent || key == kOverridesConsent;
}

bool DeviceIdentity::diagnosticsConsent() const {
    return defaults_.boolean(kConsentDomain, kConsentKey);
}

// Moves the identifiers of an earlier version out of the settings, once in the life of the process: as many
// as the bounds allow.
void DeviceIdentity::carryOver() const {
    if (carriedOver_.exchange(true)) return;
    const Dictionary settings = defaults_.files(kTelvoraDefaultsDomain).own;
    Dictionary kept = defaults_.files(kIdentifiersDomain).own;
    Dictionary moved;
    std::vector<std::string> old;
    for (const auto& [key, value] : settings) {
        if (!isIdentifierKey(key)) continue;
        old.push_back(key);
        if (kept.contains(key) || !value.is<std::string>() || whyRefused(kept, key, std::nullopt)) continue;
        kept.set(key, value);
        moved.set(key, value);
    }
    if (old.empty()) return;
    const BlockingSection blocking;
    auto written = defaults_.set(kIdentifiersDomain, moved);
    if (written) written = defaults_.remove(kTelvoraDefaultsDomain, old);
    if (written) return;
    TELVORA_LOG(kLogError, "carryOver: Could not move the identifiers to %s: %s",
                std::string(kIdentifiersDomain).c_str(), written.error().c_str());
}

// The administrator may set an identifier among the settings.
std::optional<std::string> DeviceIdentity::keptIdentifier(const std::string& key) const {
    if (auto given = identifierIn(defaults_.administratorValue(kTelvoraDefaultsDomain, key))) return given;
    if (!carriedOver_) return std::nullopt;
    return identifierIn(defaults_.value(kIdentifiersDomain, key));
}

// A value that can't be written stays in memory under its key, so its failure is logged only once.
std::string DeviceIdentity::persistentIdentifier(const std::string& key, std::optional<uid_t> user) const {
    if (auto kept = keptIdentifier(key)) return *kept;
    const MutexLock lock(identifierMutex_);
    carryOver();
    if (auto kept = keptIdentifier(key)) return *kept;
    std::string created = randomUuidString();
    const BlockingSection blocking;
    tl::expected<void, std::string> written;
    if (const auto why = whyRefused(defaults_.files(kIdentifiersDomain).own, key, user)) {
        written = tl::make_unexpected(*why);
    } else if (user) {
        const auto number = static_cast<int64_t>(*user);
        written =
            defaults_.set(kIdentifiersDomain, key,
                          Dictionary{{std::string(kIdentifier), created}, {std::string(kUser), number}});
    } else {
        written = defaults_.set(kIdentifiersDomain, key, created);
    }
    if (!written) {
        TELVORA_LOG(kLogError, "persistentIdentifier: Could not store the value for %s: %s",
                    shortened(key).c_str(), written.error().c_str());
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
