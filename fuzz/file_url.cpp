// SPDX-License-Identifier: Apache-2.0
//
// File URLs and percent-encoding: what is encoded decodes to itself, and no path has a zero byte that the URL
// did not have.
#include "util/file_url.h"

#include "fuzz/target.h"
#include "util/percent_encoding.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

void tryInput(std::string_view bytes) {
    const std::string encoded = percentEncoded(bytes, [](char) { return false; });
    require(encoded.size() == 3 * bytes.size() && percentDecoded(encoded) == bytes,
            "encoded bytes come back");
    if (const auto decoded = percentDecoded(bytes)) {
        require(decoded->size() <= bytes.size(), "decoding does not lengthen");
        const auto plain = [](char c) { return kUnreservedCharacters.find(c) != std::string_view::npos; };
        require(percentDecoded(percentEncoded(*decoded, plain)) == *decoded, "decoded bytes come back");
    }

    const std::string text = textOfURL(bytes);
    require(std::none_of(text.begin(), text.end(),
                         [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }),
            "the text of a URL is one line");

    const std::string path = pathOfFileURL(bytes);
    if (bytes.find('\0') != std::string_view::npos) return;
    require(path.find('\0') == std::string::npos, "no path has a zero byte");
    require(path.size() <= bytes.size(), "a path is no longer than its URL");
    if (!bytes.starts_with("file:")) return require(path == bytes, "a path is a path");
    require(path.empty() || path.front() == '/', "the path of a URL is absolute");
    if (!path.empty()) require(pathOfFileURL(fileURLOfPath(path)) == path, "the URL of a path leads back");
}

}  // namespace telvora::fuzz
