// SPDX-License-Identifier: Apache-2.0
#include "util/file_url.h"

#include "util/percent_encoding.h"

namespace telvora {

namespace {

// Removes `prefix` from the front of `text`; false if it isn't there.
bool consume(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

}  // namespace

std::string fileURLOfPath(std::string_view path) {
    const auto isPlain = [](char c) {
        return c == '/' || kUnreservedCharacters.find(c) != std::string_view::npos;
    };
    return "file://" + percentEncoded(path, isPlain);
}

std::string pathOfFileURL(std::string_view url) {
    if (!consume(url, "file:")) return std::string(url);
    url = url.substr(0, url.find_first_of("?#"));
    if (consume(url, "//")) consume(url, "localhost");
    if (!url.starts_with('/') || url.find("%00") != std::string_view::npos) return {};
    return percentDecoded(url).value_or("");
}

std::string textOfURL(std::string_view url) {
    return percentEncoded(url, [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f; });
}

}  // namespace telvora
