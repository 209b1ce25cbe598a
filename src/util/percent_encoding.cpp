// SPDX-License-Identifier: Apache-2.0
#include "util/percent_encoding.h"

#include <charconv>

#include "util/hexadecimal.h"

namespace telvora {

std::string percentEncoded(std::string_view text, bool (*isPlain)(char)) {
    std::string encoded;
    encoded.reserve(text.size());
    for (const char c : text) {
        if (isPlain(c)) {
            encoded.push_back(c);
        } else {
            encoded.push_back('%');
            appendHex(encoded, c, kUpperHexDigits);
        }
    }
    return encoded;
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        unsigned code = 0;
        const char* const end = text.data() + i + 3;
        if (std::from_chars(text.data() + i + 1, end, code, 16).ptr != end) return std::nullopt;
        decoded.push_back(static_cast<char>(code));
        i += 2;
    }
    return decoded;
}

}  // namespace telvora
