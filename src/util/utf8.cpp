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
        const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
        const bool control =
            length == 0 || byte(0) < 0x20 || byte(0) == 0x7f || (byte(0) == 0xc2 && byte(1) < 0xa0);
        const std::string_view sequence = text.substr(0, std::max<size_t>(length, 1));
        text.remove_prefix(sequence.size());
        if (!control || (length == 1 && kept.find(sequence.front()) != std::string_view::npos)) {
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
