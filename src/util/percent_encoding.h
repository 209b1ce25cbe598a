// SPDX-License-Identifier: Apache-2.0
//
// Percent-encoding of URLs (RFC 3986, section 2.1). Thread-safe: no shared state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace telvora {

// The letters, digits and marks that need no encoding anywhere in a URL (RFC 3986, section 2.3).
inline constexpr std::string_view kUnreservedCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

// The text with each byte for which `isPlain` is false as "%XX", in upper-case digits.
std::string percentEncoded(std::string_view text, bool (*isPlain)(char));

// The text with each "%XX" decoded; std::nullopt if an encoding is incomplete or a digit is not hexadecimal.
std::optional<std::string> percentDecoded(std::string_view text);

}  // namespace telvora
