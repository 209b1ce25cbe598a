// SPDX-License-Identifier: Apache-2.0
#include "config/signed_bag.h"

#include "platform/property_list_format.h"
#include "util/log.h"

namespace telvora {

namespace {

std::optional<Dictionary> dictionaryOf(tl::expected<PropertyList, std::string> parsed) {
    const Dictionary* dictionary = parsed ? parsed->getIf<Dictionary>() : nullptr;
    if (dictionary == nullptr) return std::nullopt;
    return *dictionary;
}

std::optional<Dictionary> parseDocument(std::string_view document) {
    auto parsed = parsePropertyList(document);
    if (!parsed) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: propertyListWithData error %s",
                    parsed.error().c_str());
    }
    return dictionaryOf(std::move(parsed));
}

std::optional<std::string> decodedString(const Dictionary& dictionary, std::string_view key) {
    const std::string* text = dictionary.string(key);
    return text != nullptr ? base64Decode(*text) : std::nullopt;
}

}  // namespace

std::optional<Dictionary> openSignedBag(std::string_view document,
                                        const std::optional<std::string>& publicKeyDer) {
    const std::optional<Dictionary> outer = parseDocument(document);
    if (!outer || outer->string("signature") == nullptr) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: Signature is missing");
        return std::nullopt;
    }
    const auto key = publicKeyDer ? RsaPublicKey::fromDer(*publicKeyDer) : std::nullopt;
    if (!key) return std::nullopt;
    const std::optional<std::string> signature = decodedString(*outer, "signature");
    if (!signature) return std::nullopt;
    const std::optional<std::string> bag = decodedString(*outer, "bag");
    if (!bag) return std::nullopt;
    if (!key->verifySha1(*bag, *signature)) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: Signature can not be verified, %p", key->identity());
        return std::nullopt;
    }
    return dictionaryOf(parsePropertyList(*bag));
}

tl::expected<std::string, std::string> signBag(std::string_view innerBag, const RsaPrivateKey& key) {
    const std::string signature = key.signSha1(innerBag);
    if (signature.empty()) return tl::unexpected(std::string("the key can't sign"));
    const Dictionary document{{"bag", base64Encode(innerBag)}, {"signature", base64Encode(signature)}};
    return serializePropertyList(document, PropertyListFormat::xml);
}

}  // namespace telvora
