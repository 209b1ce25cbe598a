// SPDX-License-Identifier: Apache-2.0
//
// The format of values in messages for people.
#pragma once

#include <array>
#include <charconv>
#include <string>
#include <string_view>

#include "util/utf8.h"

namespace telvora::bag {

// The shortest decimals that read back as the same number, so that different numbers look different.
inline std::string numberText(double number) {
    std::array<char, 400> digits{};  // the smallest numbers have 324 zeros after the point
    const auto [end, error] =
        std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed);
    return {digits.data(), end};
}

// A text from a bag.
inline std::string inQuotes(std::string_view text) {
    return "\"" + escapeControlCharacters(text) + "\"";
}

}  // namespace telvora::bag
