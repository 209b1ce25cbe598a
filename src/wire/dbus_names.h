// SPDX-License-Identifier: Apache-2.0
//
// The names of the D-Bus Specification ("Valid Names", "Valid Object Paths"). Thread-safe: no shared state.
#pragma once

#include <string_view>

namespace telvora {

inline constexpr size_t kMaxBusNameLength = 255;

// "/" or elements of [A-Za-z0-9_], each after a slash. A path has no limit of its own.
bool isObjectPath(std::string_view text);
// Two or more elements of [A-Za-z0-9_], separated by periods; none starts with a digit.
bool isInterfaceName(std::string_view text);
// The same rule as for interfaces.
inline bool isErrorName(std::string_view text) {
    return isInterfaceName(text);
}
// One element of an interface's name.
bool isMemberName(std::string_view text);
// A unique name (":1.5") or a well-known one; elements may have hyphens.
bool isBusName(std::string_view text);

}  // namespace telvora
