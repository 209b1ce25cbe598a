// SPDX-License-Identifier: Apache-2.0
//
// Reading numbers out of a bag, where a value of another type counts as absent: a bag is written elsewhere,
// and a text that happens to start with a digit must not decide anything.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "plist/property_list.h"

namespace telvora {

// The number under `key` cut to 32 bits (reals truncated toward zero, out-of-range values clamped), or
// nothing.
inline std::optional<int32_t> bagInteger(const Dictionary& dictionary, std::string_view key) {
    const PropertyList* value = dictionary.find(key);
    if (value == nullptr || !value->isNumber()) return std::nullopt;
    using Limits = std::numeric_limits<int32_t>;
    const int64_t number = *value->integerValue();
    return static_cast<int32_t>(std::clamp<int64_t>(number, Limits::min(), Limits::max()));
}

}  // namespace telvora
