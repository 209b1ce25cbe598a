// SPDX-License-Identifier: Apache-2.0
#include "platform/known_settings.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "util/log.h"

namespace telvora {

namespace {

constexpr const Setting* kKnownSettings[] = {&settings::kEnvironmentType,
                                             &settings::kStorebagURL,
                                             &settings::kPostURL,
                                             &settings::kRealtimePostURL,
                                             &settings::kForceEventLogging,
                                             &settings::kDeviceName,
                                             &settings::kLogLevel,
                                             &settings::kShutdownTime,
                                             &settings::kIdleTime,
                                             &settings::kMessageLogBytes,
                                             &settings::kMaxUploadBytes,
                                             &settings::kUploadDirectories,
                                             &settings::kOutboxBytes,
                                             &settings::kOutboxSeconds,
                                             &settings::kOutboxCount,
                                             &settings::kHoldOnMetered,
                                             &settings::kHoldOnBattery,
                                             &settings::kKeepBags,
                                             &settings::kProxy,
                                             &settings::kProxyExceptions,
                                             &settings::kCaFile,
                                             &settings::kClientCertificate,
                                             &settings::kClientKey,
                                             &settings::kPinnedPublicKeys,
                                             &settings::kVodexAdaptorPath,
                                             &settings::kSharedHierarchies,
                                             &settings::kMaxConnections,
                                             &settings::kMaxSessions,
                                             &settings::kMaxPendingBytes,
                                             &settings::kMaxUnreadBytes,
                                             &settings::kMaxDormantBytes,
                                             &settings::kMaxInputBytes,
                                             &settings::kMaxSessionBytes,
                                             &settings::kMaxExtensionTokens,
                                             &settings::kMaxReportsPerDay,
                                             &settings::kMaxReportBytesPerDay,
                                             &settings::kMaxLogLines,
                                             &settings::kConsent,
                                             &settings::kAutomaticTimeZone};

// The whole value as an integer; std::nullopt if it is none.
std::optional<int64_t> exactInteger(const PropertyList& value) {
    if (const auto* integer = value.getIf<int64_t>()) return *integer;
    if (const auto* real = value.getIf<double>()) {
        if (std::trunc(*real) == *real && std::fabs(*real) < 0x1p53) return static_cast<int64_t>(*real);
    } else if (const auto* text = value.getIf<std::string>()) {
        int64_t number = 0;
        const char* const end = text->data() + text->size();
        const auto parsed = std::from_chars(text->data(), end, number);
        if (parsed.ec == std::errc() && parsed.ptr == end) return number;
    }
    return std::nullopt;
}

std::optional<int64_t> fitInteger(const Setting& setting, const PropertyList& value) {
    const auto number = exactInteger(value);
    return number && *number >= setting.least && *number <= setting.most ? number : std::nullopt;
}

template <typename Fits>
bool isArrayOf(const PropertyList& value, Fits fits) {
    const auto* array = value.getIf<Array>();
    return array != nullptr && std::all_of(array->begin(), array->end(), fits);
}

bool isString(const PropertyList& value) {
    return value.is<std::string>();
}

bool isListOfUsers(const PropertyList& value) {
    return isArrayOf(value, [](const PropertyList& user) { return isString(user) || exactInteger(user); });
}

}  // namespace

std::span<const Setting* const> knownSettings() {
    return kKnownSettings;
}

const Setting* findSetting(std::string_view domain, std::string_view key) {
    for (const Setting* setting : kKnownSettings) {
        if (setting->domain == domain && setting->key == key) return setting;
    }
    return nullptr;
}

std::optional<std::string> whyUnfit(const Setting& setting, const PropertyList& value) {
    bool fits = false;
    std::string demand;
    switch (setting.type) {
        case SettingType::integer:
            fits = fitInteger(setting, value).has_value();
            demand = setting.most == std::numeric_limits<int64_t>::max()
                         ? "an integer, at least " + std::to_string(setting.least)
                         : "an integer from " + std::to_string(setting.least) + " to " +
                               std::to_string(setting.most);
            break;
        case SettingType::boolean:
            fits = value.isNumber();
            demand = "a boolean";
            break;
        case SettingType::string:
            fits = isString(value);
            demand = "a string";
            break;
        case SettingType::listOfStrings:
            fits = isArrayOf(value, isString);
            demand = "an array of strings";
            break;
        case SettingType::listsOfUsers:
            fits = isArrayOf(value, isListOfUsers);
            demand = "an array of arrays of users";
            break;
    }
    return fits ? std::nullopt : std::optional("must be " + demand);
}

int64_t integerSetting(UserDefaults& defaults, const Setting& setting) {
    const auto given = defaults.value(setting.domain, setting.key);
    if (!given) return setting.standard;
    if (const auto number = fitInteger(setting, *given)) return *number;
    if (defaults.isNewlyUnfit(setting.domain, setting.key, *given)) {
        TELVORA_LOG(kLogWarning, "Settings: %s of %s counts as its default, %s: it %s",
                    std::string(setting.key).c_str(), std::string(setting.domain).c_str(),
                    defaultOf(setting).c_str(), whyUnfit(setting, *given).value_or("").c_str());
    }
    return setting.standard;
}

std::string defaultOf(const Setting& setting) {
    if (!setting.otherwise.empty()) return std::string(setting.otherwise);
    if (setting.type == SettingType::boolean) return setting.standard != 0 ? "true" : "false";
    return std::to_string(setting.standard);
}

std::string_view describe(SettingEffect effect) {
    switch (effect) {
        case SettingEffect::atOnce:
            return "at once";
        case SettingEffect::laterSessions:
            return "for later sessions";
        case SettingEffect::reload:
            return "after SIGHUP";
        case SettingEffect::restart:
            return "after a restart";
    }
    return "";
}

}  // namespace telvora
