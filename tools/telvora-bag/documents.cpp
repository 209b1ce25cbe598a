// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/documents.h"

#include <cerrno>
#include <fstream>
#include <iostream>

#include "config/bag_signing.h"
#include "json/json_reader.h"
#include "plist/property_list_format.h"
#include "util/atomic_file.h"
#include "util/base64.h"
#include "util/error_text.h"
#include "util/utf8.h"

namespace telvora::bag {

namespace {

constexpr std::string_view kStandardStream = "-";

tl::unexpected<std::string> failure(const std::string& path, const std::string& reason) {
    return tl::unexpected((path == kStandardStream ? "standard input" : path) + ": " + reason);
}

// Reads one byte more than the limit, so that the caller sees that the input is too long.
std::string readAll(std::istream& stream) {
    std::string content(kMaxDocumentBytes + 1, '\0');
    stream.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(stream.gcount()));
    return content;
}

tl::expected<Dictionary, std::string> dictionaryOf(const std::string& path, const std::string& format,
                                                   tl::expected<PropertyList, std::string> parsed) {
    if (!parsed && exceedsPropertyListLimit(parsed.error())) return failure(path, parsed.error());
    if (!parsed) return failure(path, "no " + format + ": " + parsed.error());
    if (const Dictionary* dictionary = parsed->getIf<Dictionary>()) return *dictionary;
    return failure(path, "no dictionary");
}

}  // namespace

bool isJson(std::string_view document) {
    const size_t start = document.find_first_not_of(" \t\r\n");
    return start != std::string_view::npos && (document[start] == '{' || document[start] == '[');
}

int complain(const std::string& message) {
    std::cerr << "telvora-bag: " << escapeControlCharacters(message) << '\n';
    return kBadInput;
}

tl::expected<std::string, std::string> readFile(const std::string& path) {
    std::ifstream file;
    errno = 0;
    if (path != kStandardStream) file.open(path, std::ios::binary);
    std::istream& stream = path == kStandardStream ? std::cin : file;
    std::string content = stream ? readAll(stream) : std::string();
    if (!stream.eof() && content.size() <= kMaxDocumentBytes)
        return failure(path, errno != 0 ? errorText("can't be read", errno) : "can't be read");
    if (content.size() > kMaxDocumentBytes) return failure(path, "larger than 16 MiB");
    return content;
}

tl::expected<void, std::string> writeFile(const std::string& path, std::string_view content, Access access) {
    if (path == kStandardStream) {
        std::cout << content << std::flush;
        if (std::cout) return {};
        return tl::unexpected(std::string("standard output can't be written"));
    }
    const FileAttributes attributes{.mode = access == Access::everybody ? mode_t{0644} : mode_t{0600}};
    if (auto written = replaceFile(path, content, attributes); !written)
        return failure(path, written.error());
    return {};
}

tl::expected<Dictionary, std::string> parsePlist(const std::string& path, std::string_view document) {
    return dictionaryOf(path, "property list", parsePropertyList(document));
}

tl::expected<Dictionary, std::string> parseDictionary(const std::string& path, std::string_view document) {
    if (isJson(document)) return dictionaryOf(path, "JSON", parseJson(document));
    return dictionaryOf(path, "property list", parsePropertyList(document));
}

tl::expected<Dictionary, std::string> readDictionary(const std::string& path) {
    const auto document = readFile(path);
    if (!document) return tl::unexpected(document.error());
    return parseDictionary(path, *document);
}

tl::expected<std::string, std::string> bytesToSign(std::string_view document, const Dictionary& bag) {
    tl::expected<std::string, std::string> bytes = std::string(document);
    if (isJson(document)) bytes = serializePropertyList(bag, PropertyListFormat::xml);
    if (!bytes) return bytes;
    if (bytes->size() > kMaxInnerBagBytes) return tl::unexpected(whyTooLongToSign());
    // JSON reaches this point unparsed.
    if (const auto read = parsePropertyList(*bytes); !read) return tl::unexpected(read.error());
    return bytes;
}

bool isSignedDocument(const Dictionary& document) {
    return document.contains("bag") || document.contains("signature");
}

std::optional<SignedBag> takeApart(const Dictionary& document) {
    const auto decoded = [&document](std::string_view key) {
        const std::string* text = document.string(key);
        return text != nullptr ? base64Decode(*text) : std::nullopt;
    };
    auto inner = decoded("bag");
    auto signature = decoded("signature");
    if (!inner || !signature) return std::nullopt;
    return SignedBag{std::move(*inner), std::move(*signature)};
}

tl::expected<Dictionary, std::string> readBag(const std::string& path) {
    auto document = readDictionary(path);
    if (!document || !isSignedDocument(*document)) return document;
    const auto parts = takeApart(*document);
    if (!parts) return failure(path, "no \"bag\" and \"signature\" in base64");
    return parsePlist(path + ": inner bag", parts->inner);
}

}  // namespace telvora::bag
