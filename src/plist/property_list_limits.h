// SPDX-License-Identifier: Apache-2.0
//
// The limits of documents, texts and dates for readers and writers, with the reasons of their failures.
#pragma once

#include <string_view>

#include "util/utf8.h"

namespace telvora {

inline constexpr double kSecondsFrom1970To2001 = 978307200;  // the format counts dates from 2001-01-01 UTC
inline constexpr const char* kWhyNoDate = "a date outside the years 1 to 9999";

inline constexpr const char* kWhyTooLong = "longer than 16 MiB";
inline constexpr const char* kWhyTooDeep = "nested more than 64 deep";
inline constexpr const char* kWhyTooMany = "more than 2097152 values";
inline constexpr const char* kWhyTooLarge = "values of more than 16 MiB";

// Whether these seconds since 1970 are in the years 1 to 9999, which XML can write.
inline bool isDate(double seconds) {
    return seconds >= -62135596800.0 && seconds < 253402300800.0;
}

// The reason why a property list cannot hold the text; null if it can.
inline const char* whyNoText(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) return "a string with a zero byte";
    return isValidUtf8(text) ? nullptr : "a string that is not UTF-8";
}

}  // namespace telvora
