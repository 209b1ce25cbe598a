// SPDX-License-Identifier: Apache-2.0
//
// The names of the values of an enumeration, for command lines and the page.
#pragma once

#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace telvora::lab {

template <typename Value>
using NamedValues = std::span<const std::pair<std::string_view, Value>>;

// All values with their names, in the order of the enumeration. Specialised for each enumeration.
template <typename Value>
NamedValues<Value> namedValues();

template <typename Value>
std::optional<Value> valueNamed(std::string_view wanted) {
    for (const auto& [name, value] : namedValues<Value>()) {
        if (name == wanted) return value;
    }
    return std::nullopt;
}

template <typename Value>
std::string_view nameOf(Value wanted) {
    for (const auto& [name, value] : namedValues<Value>()) {
        if (value == wanted) return name;
    }
    return {};
}

}  // namespace telvora::lab
