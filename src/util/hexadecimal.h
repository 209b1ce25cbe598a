// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace telvora {

inline constexpr std::string_view kLowerHexDigits = "0123456789abcdef";
inline constexpr std::string_view kUpperHexDigits = "0123456789ABCDEF";

// Appends the two digits of a byte.
inline void appendHex(std::string& text, char byte, std::string_view digits = kLowerHexDigits) {
    const auto value = static_cast<unsigned char>(byte);
    text.append({digits[value >> 4], digits[value & 15]});
}

// Two lower-case digits for each byte.
inline std::string hexText(std::string_view bytes) {
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char byte : bytes)
        appendHex(text, byte);
    return text;
}

}  // namespace telvora
