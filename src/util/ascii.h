// SPDX-License-Identifier: Apache-2.0
//
// Letter case, blanks and parts of ASCII text, whatever the locale is. All other bytes stay as they are.
// Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace telvora {

constexpr char asciiLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
constexpr char asciiUpperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
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
