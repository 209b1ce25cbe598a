// SPDX-License-Identifier: Apache-2.0
//
// Reads signed documents, which carry bags: a property list whose top level is a dictionary with two base64
// strings; other entries are ignored,
//
//     "bag"        the inner bag, itself a serialised property list (a dictionary)
//     "signature"  an RSASSA-PKCS1-v1_5 signature (RFC 8017) over the SHA-1 digest of the decoded "bag"
//
// Thread-safe: no shared state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "plist/property_list.h"

namespace telvora {

// The steps of getting a bag that can fail.
enum class BagStep : uint8_t { none, download, key, signature, content, section };
// Name of a step on the wire, as it is spelled above.
const char* nameOf(BagStep step);

// The step that failed, and the reason for people.
struct BagFault {
    BagStep step = BagStep::none;
    std::string reason;
};

// The inner bag of a document whose signature one of the keys (PKCS#1 or SubjectPublicKeyInfo) verifies.
// Failures are logged at level 3, except unreadable keys or base64 text, and an inner bag that is malformed
// or no dictionary.
tl::expected<Dictionary, BagFault> openSignedBag(std::string_view document,
                                                 const std::vector<std::string>& publicKeyDers);

}  // namespace telvora
