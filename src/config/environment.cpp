// SPDX-License-Identifier: Apache-2.0
#include "config/environment.h"

#include <array>

#include "platform/known_settings.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr std::array<const char*, 5> kSectionNames{nullptr, "development", "zandor_internal", "seed",
                                                   "release"};

EnvironmentType environmentTypeFromSetting(const PropertyList& setting) {
    const int64_t number = setting.integerValue().value_or(0);
    if (number >= 0 && number < static_cast<int64_t>(kSectionNames.size())) {
        return static_cast<EnvironmentType>(number);
    }
    TELVORA_LOG(kLogError, "userDefaultsEnvironment: Invalid environment type %u",
                static_cast<unsigned>(number));
    return EnvironmentType::zandorInternal;
}

}  // namespace

std::optional<std::string> sectionNameForEnvironment(EnvironmentType type) {
    const auto index = static_cast<size_t>(type);
    if (index >= kSectionNames.size() || kSectionNames.at(index) == nullptr) return std::nullopt;
    return kSectionNames.at(index);
}

EnvironmentType Environment::userDefaultsEnvironment() const {
    std::call_once(typeOnce_, [this] {
        if (const auto setting = defaults_.value(kTelvoraDefaultsDomain, settings::kEnvironmentType.key)) {
            type_ = environmentTypeFromSetting(*setting);
        } else {
            type_ = identity_.isInternal() ? EnvironmentType::zandorInternal : EnvironmentType::release;
        }
        TELVORA_LOG(kLogInfo, "userDefaultsEnvironment: Environment type %u", static_cast<unsigned>(type_));
    });
    return type_;
}

const std::string& Environment::storebagBaseURL() const {
    std::call_once(baseURLOnce_, [this] {
        const char* builtIn =
            identity_.isInternal() ? TELVORA_INTERNAL_STOREBAG_URL : TELVORA_PUBLIC_STOREBAG_URL;
        baseURL_ = defaults_.string(kTelvoraDefaultsDomain, settings::kStorebagURL.key).value_or(builtIn);
    });
    return baseURL_;
}

}  // namespace telvora
