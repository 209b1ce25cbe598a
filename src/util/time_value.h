// SPDX-License-Identifier: Apache-2.0
//
// The time stamp of reports, a pair of signed 32-bit integers, and conversions of times to numbers.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>

namespace telvora {

// Time of day as seconds and microseconds since 1970-01-01 UTC.
struct TimeValue {
    int32_t seconds = 0;
    int32_t microseconds = 0;

    friend bool operator==(const TimeValue&, const TimeValue&) = default;
};

// A source of the time of day: timeOfDay() in the daemon, a virtual clock in tests. Callable from any thread.
using Clock = std::function<TimeValue()>;

// The system's wall clock, gettimeofday(2).
TimeValue timeOfDay();

}  // namespace telvora

namespace TelvoradUtil {

// Whole and fractional seconds since 1970.
inline double secondsFromTimeValue(telvora::TimeValue time) {
    return static_cast<double>(time.seconds) + static_cast<double>(time.microseconds) / 1000000.0;
}

// -1.0 for NaN and infinity, which JSON has no numbers for; else the value itself.
inline double sanitizeNumber(double value) {
    return std::isfinite(value) ? value : -1.0;
}

}  // namespace TelvoradUtil
