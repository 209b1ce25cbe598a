// SPDX-License-Identifier: Apache-2.0
//
// The current locale and time zone.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace telvora {

// The ISO 3166 territory of LC_ALL, else LANG, else `localeFile` (locale.conf(5)): "de_CH.UTF-8" gives "CH".
// std::nullopt if no source names a territory ("C", "POSIX"). Reads the sources at each call; callable from
// any thread while no thread calls setenv(3).
std::optional<std::string> currentCountryCode(const std::filesystem::path& localeFile = "/etc/locale.conf");

// The same, with the source that named it.
struct Country {
    std::string code;
    std::string source;  // "LC_ALL", "LANG" or the path of the file
};
std::optional<Country> currentCountry(const std::filesystem::path& localeFile = "/etc/locale.conf");

// The country code of the territory of a locale: two letters, in upper case; std::nullopt for all other
// texts.
std::optional<std::string> countryCodeOf(std::string_view territory);

// The local time zone's current offset from GMT in seconds, east positive (localtime_r(3)). Thread-safe.
long timeZoneOffsetSeconds();

}  // namespace telvora
