// SPDX-License-Identifier: Apache-2.0
#include "util/utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "util/hexadecimal.h"

namespace telvora {

namespace {

size_t asciiPrefixLength(std::string_view text) {
    size_t i = 0;
    for (; i + sizeof(uint64_t) <= text.size(); i += sizeof(uint64_t)) {
        uint64_t block;
        std::memcpy(&block, text.data() + i, sizeof block);
        if ((block & 0x8080808080808080u) != 0) break;
    }
    while (i < text.size() && static_cast<unsigned char>(text[i]) < 0x80)
        ++i;
    return i;
}

// The length of the well-formed sequence at the start of `text` (not empty), or 0.
size_t sequenceLength(std::string_view text) {
    const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    // The second byte's range is narrower after the leads of overlong forms, surrogates and code points above
    // U+10FFFF.
    size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        if (lead == 0xe0) low = 0xa0;
        if (lead == 0xed) high = 0x9f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        if (lead == 0xf0) low = 0x90;
        if (lead == 0xf4) high = 0x8f;
    }
    if (length == 0 || text.size() < length || byte(1) < low || byte(1) > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    return length;
}

// The code point of a well-formed sequence of at most three bytes; 0 for a longer one.
uint32_t codePointOf(std::string_view sequence) {
    const auto bits = [&sequence](size_t i) { return static_cast<unsigned char>(sequence[i]) & 0x3fU; };
    switch (sequence.size()) {
        case 1:
            return static_cast<unsigned char>(sequence[0]);
        case 2:
            return (bits(0) & 0x1fU) << 6 | bits(1);
        case 3:
            return (bits(0) & 0x0fU) << 12 | bits(1) << 6 | bits(2);
        default:
            return 0;
    }
}

bool isControl(std::string_view sequence) {
    if (sequence.size() > 3) return false;
    const uint32_t c = codePointOf(sequence);
    const bool isSeparator = c == 0x2028 || c == 0x2029;
    const bool isOverride = (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
    return c < 0x20 || (c >= 0x7f && c < 0xa0) || isSeparator || isOverride;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    text.remove_prefix(asciiPrefixLength(text));
    while (!text.empty()) {
        const size_t length = sequenceLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string replaceInvalidUtf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = sequenceLength(text);
        if (length == 0) {
            result += "\xef\xbf\xbd";
            text.remove_prefix(1);
        } else {
            result += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return result;
}

std::string escapeControlCharacters(std::string_view text, std::string_view kept) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = sequenceLength(text);
        const std::string_view sequence = text.substr(0, std::max<size_t>(length, 1));
        text.remove_prefix(sequence.size());
        if ((length != 0 && !isControl(sequence)) ||
            (length == 1 && kept.find(sequence.front()) != std::string_view::npos)) {
            result += sequence;
            continue;
        }
        for (const char c : sequence) {
            result += "\\x";
            appendHex(result, c);
        }
    }
    return result;
}

std::string escapeControlCharactersInJson(std::string_view json) {
    std::string result;
    result.reserve(json.size());
    while (!json.empty()) {
        const std::string_view sequence = json.substr(0, std::max<size_t>(sequenceLength(json), 1));
        json.remove_prefix(sequence.size());
        const uint32_t c = isControl(sequence) ? codePointOf(sequence) : 0;
        if (c >= 0x7f) {
            result += "\\u";
            appendHex(result, static_cast<char>(c >> 8));
            appendHex(result, static_cast<char>(c));
        } else {
            result += sequence;
        }
    }
    return result;
}

size_t utf16Length(std::string_view text) {
    size_t units = asciiPrefixLength(text);
    text.remove_prefix(units);
    while (!text.empty()) {
        const size_t length = sequenceLength(text);
        units += length == 4 ? 2 : 1;
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return units;
}

}  // namespace telvora
