// SPDX-License-Identifier: Apache-2.0
//
// Numbers of a bag. Values of another type count as absent: a text that starts with a digit must not decide
// anything.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "plist/property_list.h"

namespace telvora {

// The number under `key` cut to 32 bits (reals truncated toward zero, out-of-range values clamped);
// std::nullopt if absent.
inline std::optional<int32_t> bagInteger(const Dictionary& dictionary, std::string_view key) {
    const PropertyList* value = dictionary.find(key);
    if (value == nullptr || !value->isNumber()) return std::nullopt;
    using Limits = std::numeric_limits<int32_t>;
    const int64_t number = *value->integerValue();
    return static_cast<int32_t>(std::clamp<int64_t>(number, Limits::min(), Limits::max()));
}

}  // namespace telvora
