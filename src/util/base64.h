// SPDX-License-Identifier: Apache-2.0
//
// Base64 (RFC 4648, section 4). Thread-safe: no shared state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace telvora {

// With padding and without line breaks.
std::string base64Encode(std::string_view bytes);

// Decodes base64, ignoring all characters outside its alphabet. std::nullopt if the rest is not a whole
// number of base64 groups (padding missing, misplaced or followed by more).
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace telvora
