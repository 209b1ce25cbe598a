// SPDX-License-Identifier: Apache-2.0
//
// Signed bags. No input is accepted without a signature of the key; a signed document opens as its bag, and a
// damaged one as that bag or not at all.
#include "config/signed_bag.h"

#include "fuzz/target.h"
#include "tests/support/signed_document.h"

namespace telvora::fuzz {

const double kMostSeconds = 6;  // as for property lists

namespace {

std::string serialized(const Dictionary& bag) {
    return serializePropertyList(bag, PropertyListFormat::binary).value();
}

}  // namespace

void tryInput(std::string_view bytes) {
    static const std::string publicKey = test::bagKey().publicKeyToDer();
    require(!openSignedBag(bytes, {publicKey}), "no document without a signature opens");
    require(!openSignedBag(bytes, {std::string(bytes)}), "no key without an RSA key opens a document");

    Input input(bytes);
    const size_t position = input.byte() << 8 | input.byte();
    const char damage = static_cast<char>(input.byte());
    auto document = signBag(input.rest(), test::bagKey());
    require(document.has_value(), "a short bag can be signed");
    const auto opened = openSignedBag(*document, {publicKey});
    const auto inner = parsePropertyList(input.rest());
    const auto* expected = inner ? inner->getIf<Dictionary>() : nullptr;
    require(opened.has_value() == (expected != nullptr), "a signed bag opens if it is a dictionary");
    if (!opened) return;
    require(serialized(*opened) == serialized(*expected), "a signed bag is what was signed");

    char& damaged = (*document)[position % document->size()];
    damaged = static_cast<char>(damaged ^ damage);
    const auto reopened = openSignedBag(*document, {publicKey});
    require(!reopened || serialized(*reopened) == serialized(*expected), "a damaged document forges no bag");
}

}  // namespace telvora::fuzz
