// SPDX-License-Identifier: Apache-2.0
#include "util/base64.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace telvora {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int8_t kForeign = -1;

// The value of each character; kForeign outside the alphabet.
constexpr std::array<int8_t, 256> kValues = [] {
    std::array<int8_t, 256> values{};
    values.fill(kForeign);
    for (size_t i = 0; i < kAlphabet.size(); ++i) {
        values[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int8_t>(i);
    }
    return values;
}();

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - at);
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) {
            group = group << 8 | (i < count ? static_cast<uint8_t>(bytes[at + i]) : 0);
        }
        for (size_t i = 0; i < 4; ++i) {
            text.push_back(i <= count ? kAlphabet[group >> (18 - 6 * i) & 63] : '=');
        }
    }
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    uint32_t group = 0;
    size_t digits = 0;
    size_t padding = 0;
    for (const char c : text) {
        const int8_t value = kValues[static_cast<uint8_t>(c)];
        if (c == '=') {
            ++padding;
            continue;
        }
        if (value == kForeign) continue;
        if (padding > 0) return std::nullopt;
        group = (group << 6 | static_cast<uint32_t>(value)) & 0xffffff;
        if (++digits % 4 != 0) continue;
        for (const int shift : {16, 8, 0})
            bytes.push_back(static_cast<char>(group >> shift & 0xff));
    }
    // The last group has 2 or 3 digits, and 1 or 2 bytes.
    const size_t rest = digits % 4;
    if (padding > 2 || (digits + padding) % 4 != 0) return std::nullopt;
    if (rest >= 2) bytes.push_back(static_cast<char>(group >> (rest == 2 ? 4 : 10) & 0xff));
    if (rest == 3) bytes.push_back(static_cast<char>(group >> 2 & 0xff));
    return bytes;
}

}  // namespace telvora
