// SPDX-License-Identifier: Apache-2.0
//
// Makes signed documents (signed_bag.h), for tools and tests. Thread-safe: no shared state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "platform/private_key.h"
#include "plist/property_list_format.h"

namespace telvora {

// The longest inner bag whose signed document is within the limits of readers, with a key of any length.
inline constexpr size_t kMaxInnerBagBytes = (kMaxDocumentBytes - 8192) / 4 * 3;
std::string whyTooLongToSign();

// Makes the signed document of a serialised inner bag, as an XML property list. Fails with a reason if the
// bag is too long or the key can't sign.
tl::expected<std::string, std::string> signBag(std::string_view innerBag, const RsaPrivateKey& key);

}  // namespace telvora
