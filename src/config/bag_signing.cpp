// SPDX-License-Identifier: Apache-2.0
#include "config/bag_signing.h"

#include "plist/property_list.h"
#include "util/base64.h"

namespace telvora {

std::string whyTooLongToSign() {
    return "longer than the " + std::to_string(kMaxInnerBagBytes) +
           " bytes of which a signed document of 16 MiB can be made";
}

tl::expected<std::string, std::string> signBag(std::string_view innerBag, const RsaPrivateKey& key) {
    if (innerBag.size() > kMaxInnerBagBytes) return tl::unexpected(whyTooLongToSign());
    const std::string signature = key.signSha1(innerBag);
    if (signature.empty()) return tl::unexpected(std::string("the key can't sign"));
    const Dictionary document{{"bag", base64Encode(innerBag)}, {"signature", base64Encode(signature)}};
    return serializePropertyList(document, PropertyListFormat::xml);
}

}  // namespace telvora
