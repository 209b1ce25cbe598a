// SPDX-License-Identifier: Apache-2.0
#include "http/retry_after.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

namespace telvora {

namespace {

constexpr double kMost = 86400;

// Seconds since 1970 of an HTTP-date (RFC 9110, section 5.6.7) in its preferred form.
std::optional<double> timeOfDate(const std::string& text) {
    constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    tm date{};
    char month[4] = {};
    int end = 0;
    if (std::sscanf(text.c_str(), "%*3s, %2d %3s %4d %2d:%2d:%2d GMT%n", &date.tm_mday, month, &date.tm_year,
                    &date.tm_hour, &date.tm_min, &date.tm_sec, &end) != 6 ||
        static_cast<size_t>(end) != text.size())
        return std::nullopt;
    const char* found = std::strstr(kMonths, month);
    if (found == nullptr || std::strlen(month) != 3 || (found - kMonths) % 3 != 0) return std::nullopt;
    date.tm_mon = static_cast<int>(found - kMonths) / 3;
    date.tm_year -= 1900;
    return static_cast<double>(timegm(&date));
}

}  // namespace

std::chrono::seconds retryAfter(const HttpResult& result, double now) {
    const auto value = result ? result->header("Retry-After") : std::nullopt;
    if (!value) return {};
    double seconds = 0;
    unsigned long long number = 0;
    const auto [end, error] = std::from_chars(value->data(), value->data() + value->size(), number);
    if (end == value->data() + value->size() && error != std::errc::invalid_argument) {
        seconds = error == std::errc::result_out_of_range ? kMost : static_cast<double>(number);
    } else if (const auto date = timeOfDate(std::string(*value))) {
        seconds = *date - now;
    }
    return std::chrono::seconds(std::llround(std::clamp(seconds, 0.0, kMost)));
}

}  // namespace telvora
