// SPDX-License-Identifier: Apache-2.0
//
// ASCII text: what is such text, letter case, blanks and parts, whatever the locale is. All other bytes stay
// as they are. Thread-safe.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace telvora {

constexpr char asciiLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
constexpr char asciiUpperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Whether all characters are ASCII and none is NUL, as in nearly all text. Looks at eight of them at a time.
inline bool isAsciiText(std::string_view text) {
    constexpr uint64_t kLow = 0x0101010101010101, kHigh = kLow * 0x80;
    // A byte's high bit, or the borrow of a NUL.
    const auto foundIn = [](const char* at) {
        uint64_t eight;
        std::memcpy(&eight, at, sizeof eight);
        return (eight | (eight - kLow)) & kHigh;
    };
    if (text.size() < sizeof(uint64_t))
        return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) > 0; });
    const char* const last = text.data() + text.size() - sizeof(uint64_t);
    for (const char* at = text.data(); at < last; at += sizeof(uint64_t)) {
        if (foundIn(at) != 0) return false;
    }
    return foundIn(last) == 0;
}

std::string asciiLowerCase(std::string_view text);
std::string asciiUpperCase(std::string_view text);

bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b);

// The text without the characters of `blanks` at its two ends. It refers to `text`.
std::string_view trimmed(std::string_view text, std::string_view blanks = " \t\r\n");

// Takes the text before the next `separator`, and the separator, from `rest`; without a separator the whole
// rest. The result refers to the text of `rest`.
std::string_view takePart(std::string_view& rest, char separator);

}  // namespace telvora
