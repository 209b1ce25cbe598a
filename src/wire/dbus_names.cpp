// SPDX-License-Identifier: Apache-2.0
#include "wire/dbus_names.h"

#include <algorithm>

namespace telvora {

namespace {

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '_';
}

struct ElementRule {
    bool leadingDigit;
    bool hyphen;
};

bool isElement(std::string_view text, ElementRule rule) {
    if (text.empty() || (!rule.leadingDigit && isDigit(text.front()))) return false;
    return std::all_of(text.begin(), text.end(),
                       [rule](char c) { return isNameCharacter(c) || (rule.hyphen && c == '-'); });
}

// Two or more elements, separated by periods.
bool isDotted(std::string_view text, ElementRule rule) {
    if (text.size() > kMaxBusNameLength || text.find('.') == std::string_view::npos) return false;
    for (size_t dot; (dot = text.find('.')) != std::string_view::npos; text.remove_prefix(dot + 1)) {
        if (!isElement(text.substr(0, dot), rule)) return false;
    }
    return isElement(text, rule);
}

}  // namespace

bool isObjectPath(std::string_view text) {
    if (text.empty() || text.front() != '/') return false;
    if (text.size() == 1) return true;
    char previous = 0;
    for (const char c : text) {
        if (c == '/' ? previous == '/' : !isNameCharacter(c)) return false;
        previous = c;
    }
    return previous != '/';
}

bool isInterfaceName(std::string_view text) {
    return isDotted(text, {.leadingDigit = false, .hyphen = false});
}

bool isMemberName(std::string_view text) {
    return text.size() <= kMaxBusNameLength && isElement(text, {.leadingDigit = false, .hyphen = false});
}

bool isBusName(std::string_view text) {
    if (text.size() > kMaxBusNameLength) return false;
    const bool unique = text.substr(0, 1) == ":";
    return isDotted(unique ? text.substr(1) : text, {.leadingDigit = unique, .hyphen = true});
}

}  // namespace telvora
