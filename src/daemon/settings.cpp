// SPDX-License-Identifier: Apache-2.0
#include "daemon/settings.h"

#include "access/client_files.h"
#include "backends/vodex_backend.h"
#include "config/device_identity.h"
#include "daemon/keep_alive_transaction.h"
#include "platform/known_settings.h"
#include "util/log.h"
#include "util/nearest_word.h"
#include "util/utf8.h"

namespace telvora {

namespace {

static_assert(settings::kIdleTime.standard == kDefaultIdleTime.count());

std::chrono::milliseconds milliseconds(UserDefaults& defaults, const Setting& setting) {
    return std::chrono::milliseconds(integerSetting(defaults, setting));
}

bool isOn(UserDefaults& defaults, const Setting& setting) {
    return defaults.boolean(setting.domain, setting.key);
}

OutboxLimits outboxLimits(UserDefaults& defaults) {
    return {.bytes = static_cast<uint64_t>(integerSetting(defaults, settings::kOutboxBytes)),
            .age = std::chrono::seconds(integerSetting(defaults, settings::kOutboxSeconds)),
            .countPerUser = static_cast<uint64_t>(integerSetting(defaults, settings::kOutboxCount))};
}

// Of the administrator's file; empty if it has none.
std::string administratorsText(UserDefaults& defaults, const Setting& setting) {
    const auto value = defaults.administratorValue(kTelvoraDefaultsDomain, setting.key);
    const auto* text = value ? value->getIf<std::string>() : nullptr;
    return text != nullptr ? *text : std::string();
}

HttpLink httpLink(UserDefaults& defaults) {
    return {.proxy = administratorsText(defaults, settings::kProxy),
            .proxyExceptions = administratorsText(defaults, settings::kProxyExceptions),
            .caFile = administratorsText(defaults, settings::kCaFile),
            .clientCertificate = administratorsText(defaults, settings::kClientCertificate),
            .clientKey = administratorsText(defaults, settings::kClientKey),
            .pinnedPublicKeys = administratorsText(defaults, settings::kPinnedPublicKeys)};
}

std::vector<std::string> uploadDirectories(UserDefaults& defaults) {
    std::vector<std::string> directories;
    const auto value = defaults.administratorValue(kTelvoraDefaultsDomain, settings::kUploadDirectories.key);
    const Array* array = value ? value->getIf<Array>() : nullptr;
    for (const PropertyList& element : array != nullptr ? *array : Array()) {
        if (const auto* text = element.getIf<std::string>()) directories.push_back(*text);
    }
    return directories;
}

std::string vodexAdaptorPath(UserDefaults& defaults) {
    std::string path = administratorsText(defaults, settings::kVodexAdaptorPath);
    return !path.empty() ? path : VodexBackend::kBundlePath;
}

}  // namespace

void warnOfUnknownSettings(UserDefaults& defaults) {
    constexpr int kMostLines = 10;
    std::vector<std::string_view> keys;
    for (const Setting* setting : knownSettings())
        if (setting->domain == kTelvoraDefaultsDomain) keys.push_back(setting->key);
    const UserDefaults::Files files = defaults.files(kTelvoraDefaultsDomain);
    int lines = 0;
    for (const Dictionary& file : {files.administrator, files.own}) {
        for (const auto& [key, value] : file) {
            if (findSetting(kTelvoraDefaultsDomain, key) != nullptr || DeviceIdentity::isIdentifierKey(key))
                continue;
            if (++lines > kMostLines) return;
            TELVORA_LOG(kLogWarning, "Settings: %s has the unknown key \"%s\"%s",
                        std::string(kTelvoraDefaultsDomain).c_str(),
                        escapeControlCharacters(key.substr(0, kMaxIdentifierKeyBytes)).c_str(),
                        suggestion(key, keys).c_str());
        }
    }
}

Settings readSettings(UserDefaults& defaults) {
    return {.uploadDirectories = canonicalDirectories(uploadDirectories(defaults)),
            .vodexAdaptorPath = vodexAdaptorPath(defaults),
            .idleTime = milliseconds(defaults, settings::kIdleTime),
            .shutdownTime = milliseconds(defaults, settings::kShutdownTime),
            .messageLogBytes = static_cast<uint64_t>(integerSetting(defaults, settings::kMessageLogBytes)),
            .keepBags = isOn(defaults, settings::kKeepBags),
            .outbox = outboxLimits(defaults),
            .spared = {.metered = isOn(defaults, settings::kHoldOnMetered),
                       .battery = isOn(defaults, settings::kHoldOnBattery)},
            .link = httpLink(defaults)};
}

int readLogLevel(UserDefaults& defaults) {
    const auto level = static_cast<int>(integerSetting(defaults, settings::kLogLevel));
    setLogThreshold(level);
    return level;
}

}  // namespace telvora
