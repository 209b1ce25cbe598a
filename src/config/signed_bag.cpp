// SPDX-License-Identifier: Apache-2.0
#include "config/signed_bag.h"

#include <algorithm>

#include "platform/digest.h"
#include "plist/property_list_format.h"
#include "util/base64.h"
#include "util/log.h"

namespace telvora {

namespace {

// Refers to `parsed`; null if that is no dictionary.
const Dictionary* dictionaryIn(const tl::expected<PropertyList, std::string>& parsed) {
    return parsed ? parsed->getIf<Dictionary>() : nullptr;
}

std::optional<std::string> decodedString(const Dictionary& dictionary, std::string_view key) {
    const std::string* text = dictionary.string(key);
    return text != nullptr ? base64Decode(*text) : std::nullopt;
}

tl::unexpected<BagFault> fault(BagStep step, std::string reason) {
    return tl::make_unexpected(BagFault{step, std::move(reason)});
}

std::vector<RsaPublicKey> keysFrom(const std::vector<std::string>& publicKeyDers) {
    std::vector<RsaPublicKey> keys;
    for (const std::string& der : publicKeyDers) {
        auto key = RsaPublicKey::fromDer(der);
        if (key) {
            keys.push_back(std::move(*key));
        } else if (key.error().isTooShort) {
            TELVORA_LOG(kLogError, "fetchStorebagWithName: The public key is refused: %s",
                        key.error().reason.c_str());
        }
    }
    return keys;
}

}  // namespace

tl::expected<Dictionary, BagFault> openSignedBag(std::string_view document,
                                                 const std::vector<std::string>& publicKeyDers) {
    const auto parsed = parsePropertyList(document);
    if (!parsed) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: propertyListWithData error %s",
                    parsed.error().c_str());
    }
    const Dictionary* outer = dictionaryIn(parsed);
    if (outer == nullptr || outer->string("signature") == nullptr) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: Signature is missing");
        if (!parsed) return fault(BagStep::signature, "the document is no property list: " + parsed.error());
        return fault(BagStep::signature, "the document has no signature");
    }
    const std::vector<RsaPublicKey> keys = keysFrom(publicKeyDers);
    if (keys.empty()) return fault(BagStep::key, "there is no public key that can be used");
    const std::optional<std::string> signature = decodedString(*outer, "signature");
    const std::optional<std::string> bag = decodedString(*outer, "bag");
    if (!signature || !bag) return fault(BagStep::signature, "bag or signature is not base64");
    const bool isVerified = std::any_of(
        keys.begin(), keys.end(), [&](const RsaPublicKey& key) { return key.verifySha1(*bag, *signature); });
    if (!isVerified) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: Signature can not be verified, %p",
                    keys.back().identity());
        return fault(BagStep::signature, "no public key verifies the signature");
    }
    const auto inner = parsePropertyList(*bag);
    // The author of a bag over a limit has a chance to correct it.
    if (!inner && exceedsPropertyListLimit(inner.error())) {
        TELVORA_LOG(kLogError, "fetchStorebagWithName: The bag is over a limit: %s", inner.error().c_str());
    }
    if (!inner) return fault(BagStep::content, "the signed bag is no property list: " + inner.error());
    const Dictionary* content = dictionaryIn(inner);
    if (content == nullptr) return fault(BagStep::content, "the signed bag is no dictionary");
    return *content;
}

const char* nameOf(BagStep step) {
    static constexpr const char* kNames[] = {"none", "download", "key", "signature", "content", "section"};
    return kNames[static_cast<size_t>(step)];
}

}  // namespace telvora
