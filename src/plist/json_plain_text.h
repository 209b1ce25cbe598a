// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace telvora {

namespace detail {

// Whether one of eight characters is a quotation mark, a backslash, a control character or beyond ASCII. A
// borrow may report a character too many, never one too few.
constexpr bool hasSpecial(uint64_t eight) {
    constexpr uint64_t kEach = 0x0101010101010101;
    const uint64_t controls = eight - kEach * 0x20;
    const uint64_t quotes = (eight ^ (kEach * '"')) - kEach;
    const uint64_t backslashes = (eight ^ (kEach * '\\')) - kEach;
    return ((controls | quotes | backslashes | eight) & (kEach * 0x80)) != 0;
}

template <typename Block>
uint64_t load(const char* from) {
    Block block;
    std::memcpy(&block, from, sizeof block);
    return block;
}

// All characters of a text of less than eight characters, some of them twice, padded with blanks.
inline uint64_t loadShort(std::string_view text) {
    constexpr uint64_t kBlanks = 0x2020202020202020;
    const size_t size = text.size();
    if (size == 0) return kBlanks;
    const char* const data = text.data();
    if (size >= sizeof(uint32_t)) {
        return load<uint32_t>(data) << 32 | load<uint32_t>(data + size - sizeof(uint32_t));
    }
    return kBlanks << 24 | load<uint8_t>(data) << 16 | load<uint8_t>(data + size / 2) << 8 |
           load<uint8_t>(data + size - 1);
}

}  // namespace detail

// Whether JSON carries the text as it is: no character needs an escape, all are ASCII.
inline bool isPlainJson(std::string_view text) {
    using namespace detail;
    if (text.size() < sizeof(uint64_t)) return !hasSpecial(loadShort(text));
    const char* const last = text.data() + text.size() - sizeof(uint64_t);
    for (const char* at = text.data(); at < last; at += sizeof(uint64_t)) {
        if (hasSpecial(load<uint64_t>(at))) return false;
    }
    return !hasSpecial(load<uint64_t>(last));
}

}  // namespace telvora
