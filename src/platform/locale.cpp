// SPDX-License-Identifier: Apache-2.0
#include "platform/locale.h"

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "platform/environment_file.h"
#include "util/ascii.h"
#include "util/mutex.h"

namespace telvora {

namespace {

// Of "language_TERRITORY.codeset@modifier"; std::nullopt for areas that are no country ("es_419").
std::optional<std::string> territoryOf(std::string_view locale) {
    const size_t underscore = locale.find('_');
    if (underscore == std::string_view::npos) return std::nullopt;
    std::string_view territory = locale.substr(underscore + 1);
    territory = territory.substr(0, territory.find_first_of(".@"));
    return countryCodeOf(territory);
}

// The offset is read once per second: every report asks for it, and tzset(3) checks the zone file each time.
struct OffsetOfASecond {
    time_t second = -1;
    std::string zone;  // the variable TZ
    long offset = 0;
};

}  // namespace

std::optional<std::string> countryCodeOf(std::string_view territory) {
    if (territory.size() != 2) return std::nullopt;
    const std::string code = asciiUpperCase(territory);
    const bool isCode = std::all_of(code.begin(), code.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    return isCode ? std::optional(code) : std::nullopt;
}

std::optional<std::string> currentCountryCode(const std::filesystem::path& localeFile) {
    auto country = currentCountry(localeFile);
    return country ? std::optional(std::move(country->code)) : std::nullopt;
}

std::optional<Country> currentCountry(const std::filesystem::path& localeFile) {
    for (const char* variable : {"LC_ALL", "LANG"}) {
        const char* locale = std::getenv(variable);
        if (auto territory = territoryOf(locale != nullptr ? locale : ""))
            return Country{*territory, variable};
    }
    const auto assignments = readEnvironmentFile(localeFile);
    const auto language = assignments.find("LANG");
    const auto territory = language != assignments.end() ? territoryOf(language->second) : std::nullopt;
    return territory ? std::optional(Country{*territory, localeFile}) : std::nullopt;
}

long timeZoneOffsetSeconds() {
    const time_t now = time(nullptr);
    const char* const variable = std::getenv("TZ");
    const std::string_view zone = variable != nullptr ? variable : "";

    // The C library locks internally here, which race detectors do not see.
    static Mutex zoneLock;
    static OffsetOfASecond last;
    const MutexLock lock(zoneLock);
    if (last.second != now || last.zone != zone) {
        struct tm local {};
        tzset();  // localtime_r alone keeps the zone that it met first
        const bool known = localtime_r(&now, &local) != nullptr;
        last = {now, std::string(zone), known ? local.tm_gmtoff : 0};
    }
    return last.offset;
}

}  // namespace telvora
