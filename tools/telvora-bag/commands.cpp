// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <tl/expected.hpp>

#include "config/signed_bag.h"
#include "platform/atomic_file.h"
#include "platform/digest.h"
#include "platform/property_list_format.h"

namespace telvora::bag {
namespace {

constexpr int kNotVerified = 1;
constexpr int kBadInput = 2;
constexpr std::streamsize kLargestInput = std::streamsize{16} << 20;

int complain(const std::string& message) {
    std::cerr << "telvora-bag: " << message << '\n';
    return kBadInput;
}

tl::expected<std::string, std::string> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(file), {});
    if (!file.is_open() || file.bad()) return tl::make_unexpected(path + ": can't be read");
    if (std::ssize(content) > kLargestInput) return tl::make_unexpected(path + ": larger than 16 MiB");
    return content;
}

constexpr mode_t kSecret = S_IRUSR | S_IWUSR;
constexpr mode_t kPublic = kSecret | S_IRGRP | S_IROTH;

// Writes a file whole or not at all.
tl::expected<void, std::string> writeFile(const std::string& path, std::string_view content, mode_t mode) {
    if (auto written = replaceFile(path, content); !written) {
        return tl::make_unexpected(path + ": " + written.error());
    }
    if (mode != kSecret) chmod(path.c_str(), mode);  // kSecret is how replaceFile() leaves it
    return {};
}

// The dictionary that a document holds.
tl::expected<Dictionary, std::string> parseDictionary(const std::string& path, std::string_view document) {
    auto parsed = parsePropertyList(document);
    if (!parsed) return tl::make_unexpected(path + ": no property list: " + parsed.error());
    if (const Dictionary* dictionary = parsed->getIf<Dictionary>()) return *dictionary;
    return tl::make_unexpected(path + ": a property list, but no dictionary");
}

struct SignedBag {
    std::string inner;
    std::string signature;
};

// The two parts of a signed document; nothing when it is none.
std::optional<SignedBag> takeApart(const Dictionary& document) {
    const std::string* bag = document.string("bag");
    const std::string* signature = document.string("signature");
    if (!bag || !signature) return std::nullopt;
    auto inner = base64Decode(*bag);
    auto decoded = base64Decode(*signature);
    if (!inner || !decoded) return std::nullopt;
    return SignedBag{std::move(*inner), std::move(*decoded)};
}

std::string describe(const Dictionary& bag, std::string_view bytes) {
    const std::string* version = bag.string("version");
    return "version " + (version ? *version : std::string("(none)")) + ", " + std::to_string(bytes.size()) +
           " bytes, SHA-256 " + sha256Hex(bytes);
}

}  // namespace

int keygen(const std::string& privateKeyFile, const std::string& publicKeyFile, int bits) {
    const auto key = RsaPrivateKey::generate(bits);
    if (!key) return complain(key.error());
    if (auto written = writeFile(privateKeyFile, key->toPem(), kSecret); !written) {
        return complain(written.error());
    }
    if (auto written = writeFile(publicKeyFile, key->publicKeyToDer(), kPublic); !written) {
        return complain(written.error());
    }
    return 0;
}

int sign(const std::string& privateKeyFile, const std::string& bagFile, const std::string& signedFile) {
    const auto pem = readFile(privateKeyFile);
    if (!pem) return complain(pem.error());
    const auto key = RsaPrivateKey::fromPem(*pem);
    if (!key) return complain(privateKeyFile + ": " + key.error());
    const auto inner = readFile(bagFile);
    if (!inner) return complain(inner.error());
    const auto bag = parseDictionary(bagFile, *inner);
    if (!bag) return complain(bag.error());

    const auto document = signBag(*inner, *key);
    if (!document) return complain(document.error());
    if (auto written = writeFile(signedFile, *document, kPublic); !written) return complain(written.error());
    std::cout << signedFile << ": " << describe(*bag, *inner) << '\n';
    return 0;
}

int verify(const std::string& publicKeyFile, const std::string& signedFile) {
    const auto der = readFile(publicKeyFile);
    if (!der) return complain(der.error());
    const auto key = RsaPublicKey::fromDer(*der);
    if (!key) return complain(publicKeyFile + ": no RSA public key in DER form");
    const auto document = readFile(signedFile);
    if (!document) return complain(document.error());
    const auto outer = parseDictionary(signedFile, *document);
    if (!outer) return complain(outer.error());

    const auto parts = takeApart(*outer);
    if (!parts) return complain(signedFile + ": no \"bag\" and \"signature\" in base64");
    if (!key->verifySha1(parts->inner, parts->signature)) {
        std::cerr << "telvora-bag: " << signedFile << ": the signature does not verify\n";
        return kNotVerified;
    }
    const auto bag = parseDictionary(signedFile + ": inner bag", parts->inner);
    if (!bag) return complain(bag.error());
    std::cout << signedFile << ": verified, " << describe(*bag, parts->inner) << '\n';
    return 0;
}

int show(const std::string& file) {
    const auto document = readFile(file);
    if (!document) return complain(document.error());
    auto bag = parseDictionary(file, *document);
    if (!bag) return complain(bag.error());
    if (const auto parts = takeApart(*bag)) {
        bag = parseDictionary(file + ": inner bag", parts->inner);
        if (!bag) return complain(bag.error());
    }
    const auto xml = serializePropertyList(*bag, PropertyListFormat::xml);
    if (!xml) return complain(file + ": " + xml.error());
    std::cout << *xml;
    return std::cout.good() ? 0 : complain("standard output can't be written");
}

}  // namespace telvora::bag
