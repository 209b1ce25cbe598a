// SPDX-License-Identifier: Apache-2.0
#include "util/file_url.h"

#include <charconv>

namespace telvora {

namespace {

// Removes `prefix` from the front of `text`; false when it isn't there.
bool consume(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

std::string percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return {};
        unsigned code = 0;
        const char* end = text.data() + i + 3;
        if (std::from_chars(text.data() + i + 1, end, code, 16).ptr != end || code == 0) return {};
        decoded.push_back(static_cast<char>(code));
        i += 2;
    }
    return decoded;
}

}  // namespace

std::string pathOfFileURL(std::string_view url) {
    if (!consume(url, "file:")) return std::string(url);
    url = url.substr(0, url.find_first_of("?#"));
    if (consume(url, "//")) consume(url, "localhost");
    return url.starts_with('/') ? percentDecoded(url) : std::string();
}

std::string textOfURL(std::string_view url) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const char c : url) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            text.push_back(c);
        } else {
            text.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
        }
    }
    return text;
}

}  // namespace telvora
