// SPDX-License-Identifier: Apache-2.0
//
// Documents that telvora-bag reads and writes. An error is a message for people that begins with the file's
// name. "-" is standard input or output.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora::bag {

// Exit statuses.
enum Status : int {
    kDone = 0,
    kFound = 1,  // the signature does not verify; lint has findings
    kBadInput = 2,
};

// Prints "telvora-bag: message" to standard error and returns kBadInput.
int complain(const std::string& message);

// The bytes of a file, at most as many as a property list may have.
tl::expected<std::string, std::string> readFile(const std::string& path);

enum class Access { owner, everybody };
// Writes a file completely or not at all.
tl::expected<void, std::string> writeFile(const std::string& path, std::string_view content,
                                          Access access = Access::everybody);

// The dictionary in a document: a property list, XML or binary, or JSON.
tl::expected<Dictionary, std::string> parseDictionary(const std::string& path, std::string_view document);
tl::expected<Dictionary, std::string> readDictionary(const std::string& path);
// Whether the text can only be JSON.
bool isJson(std::string_view document);
// The dictionary in a property list. A document for the daemon must be a property list.
tl::expected<Dictionary, std::string> parsePlist(const std::string& path, std::string_view document);

// The parts of a signed document: the bytes of the inner bag, and the signature.
struct SignedBag {
    std::string inner;
    std::string signature;
};
// `std::nullopt` if the document lacks either of them in base64.
std::optional<SignedBag> takeApart(const Dictionary& document);
// The bytes of a bag to sign: a property list unchanged, JSON as an XML property list. Fails with the reason
// if the daemon would refuse them.
tl::expected<std::string, std::string> bytesToSign(std::string_view document, const Dictionary& bag);

// Whether the document has the keys of a signed document.
bool isSignedDocument(const Dictionary& document);

// Reads a bag, signed or not. Checks no signature.
tl::expected<Dictionary, std::string> readBag(const std::string& path);

}  // namespace telvora::bag
