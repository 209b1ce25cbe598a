// SPDX-License-Identifier: Apache-2.0
#include "util/ascii.h"

#include <algorithm>

namespace telvora {

namespace {

std::string mapped(std::string_view text, char (*map)(char)) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), map);
    return result;
}

}  // namespace

std::string asciiLowerCase(std::string_view text) {
    return mapped(text, asciiLowerCase);
}

std::string asciiUpperCase(std::string_view text) {
    return mapped(text, asciiUpperCase);
}

bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return asciiLowerCase(x) == asciiLowerCase(y); });
}

std::string_view trimmed(std::string_view text, std::string_view blanks) {
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string_view takePart(std::string_view& rest, char separator) {
    const size_t end = rest.find(separator);
    const std::string_view part = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return part;
}

}  // namespace telvora
