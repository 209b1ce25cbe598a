// SPDX-License-Identifier: Apache-2.0
//
// The current locale and time zone.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace telvora {

// The ISO 3166 territory of LC_ALL, else LANG, else `localeFile` (locale.conf(5)): "de_CH.UTF-8" gives "CH";
// nothing where none of them names one ("C", "POSIX"). Read at each call: callable from any thread that does
// not setenv.
std::optional<std::string> currentCountryCode(const std::filesystem::path& localeFile = "/etc/locale.conf");

// The code that the territory of a locale stands for: two letters, in upper case; nothing for anything else.
std::optional<std::string> countryCodeOf(std::string_view territory);

// The local time zone's offset from GMT at this moment, in seconds, east positive (localtime_r(3)).
// Thread-safe.
long timeZoneOffsetSeconds();

}  // namespace telvora
