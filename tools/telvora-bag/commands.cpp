// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/commands.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "config/bag_signing.h"
#include "config/signed_bag.h"
#include "platform/digest.h"
#include "plist/property_list_format.h"
#include "telvora-bag/documents.h"
#include "util/utf8.h"

namespace telvora::bag {

namespace {

// Prints the bag's version, and the lengths and digests of the bag and of the document.
void describe(std::ostream& out, const std::string& file, const Dictionary& bag, std::string_view inner,
              std::string_view document) {
    const std::string* version = bag.string("version");
    out << file << ": version " << (version != nullptr ? escapeControlCharacters(*version) : "(none)")
        << "\n  bag       " << inner.size() << " bytes, SHA-256 " << sha256Hex(inner) << "\n  document  "
        << document.size() << " bytes, SHA-256 " << sha256Hex(document) << '\n';
}

struct InnerBag {
    Dictionary content;
    std::string bytes;
};

// The bytes to sign: a property list unchanged, JSON as an XML property list.
tl::expected<InnerBag, std::string> readInnerBag(const std::string& path) {
    auto document = readFile(path);
    if (!document) return tl::unexpected(document.error());
    auto bag = parseDictionary(path, *document);
    if (!bag) return tl::unexpected(bag.error());
    if (isSignedDocument(*bag)) return tl::unexpected(path + ": is a signed document already");
    auto bytes = bytesToSign(*document, *bag);
    if (!bytes) return tl::unexpected(path + ": " + bytes.error());
    return InnerBag{std::move(*bag), std::move(*bytes)};
}

// Prints the findings about a bag; false if there is an error among them.
bool isSound(const std::string& file, const Dictionary& bag) {
    const std::vector<Finding> findings = lintBag(bag);
    std::cerr << textOf(findings);
    const bool isSound = std::none_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::error;
    });
    if (!isSound) complain(file + ": not signed: the bag has errors (--no-lint signs it all the same)");
    return isSound;
}

}  // namespace

int keygen(const std::string& privateKeyFile, const std::string& publicKeyFile, int bits, bool force) {
    for (const std::string& file : {privateKeyFile, publicKeyFile}) {
        std::error_code error;
        if (!force && std::filesystem::exists(file, error)) {
            return complain(file + ": exists; --force overwrites it, and the old key is lost");
        }
    }
    std::error_code error;
    if (std::filesystem::weakly_canonical(privateKeyFile, error) ==
        std::filesystem::weakly_canonical(publicKeyFile, error))
        return complain(privateKeyFile + ": the two keys need two files");
    const auto key = RsaPrivateKey::generate(bits);
    if (!key) return complain(key.error());
    if (auto written = writeFile(publicKeyFile, key->publicKeyToDer()); !written) {
        return complain(written.error());
    }
    if (auto written = writeFile(privateKeyFile, key->toPem(), Access::owner); !written) {
        if (publicKeyFile != "-") std::filesystem::remove(publicKeyFile, error);
        return complain(written.error());
    }
    return kDone;
}

int sign(const std::string& privateKeyFile, const std::string& bagFile, const std::string& signedFile,
         bool lints, const WriteDocument& write) {
    const auto pem = readFile(privateKeyFile);
    if (!pem) return complain(pem.error());
    const auto key = RsaPrivateKey::fromPem(*pem);
    if (!key) return complain(privateKeyFile + ": " + key.error());
    const auto bag = readInnerBag(bagFile);
    if (!bag) return complain(bag.error());
    if (lints && !isSound(bagFile, bag->content)) return kFound;

    const auto document = signBag(bag->bytes, *key);
    if (!document) return complain(bagFile + ": " + document.error());
    if (auto written = write(signedFile, *document); !written) return complain(written.error());
    // Standard output may hold the document itself.
    describe(signedFile == "-" ? std::cerr : std::cout, signedFile, bag->content, bag->bytes, *document);
    return kDone;
}

int verify(const std::string& publicKeyFile, const std::string& signedFile) {
    const auto der = readFile(publicKeyFile);
    if (!der) return complain(der.error());
    const auto key = RsaPublicKey::fromDer(*der);
    if (!key) return complain(publicKeyFile + ": " + key.error().reason);
    const auto document = readFile(signedFile);
    if (!document) return complain(document.error());
    const auto outer = parsePlist(signedFile, *document);
    if (!outer) return complain(outer.error());

    const auto parts = takeApart(*outer);
    if (!parts) return complain(signedFile + ": no \"bag\" and \"signature\" in base64");
    if (!key->verifySha1(parts->inner, parts->signature)) {
        complain(signedFile + ": the signature does not verify");
        return kFound;
    }
    const auto bag = parsePlist(signedFile + ": inner bag", parts->inner);
    if (!bag) return complain(bag.error());
    describe(std::cout, signedFile + ": verified", *bag, parts->inner, *document);
    return kDone;
}

int show(const std::string& file) {
    const auto bag = readBag(file);
    if (!bag) return complain(bag.error());
    const auto xml = serializePropertyList(*bag, PropertyListFormat::xml);
    if (!xml) return complain(file + ": " + xml.error());
    const auto written = writeFile("-", *xml);
    return written ? kDone : complain(written.error());
}

}  // namespace telvora::bag
