// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "config/signed_bag.h"
#include "plist/property_list_format.h"

namespace telvora::test {

// One key for all tests of a process, since making one is slow.
inline const RsaPrivateKey& bagKey() {
    static const RsaPrivateKey key = RsaPrivateKey::generate(2048).value();
    return key;
}

inline std::string serialized(const PropertyList& value,
                              PropertyListFormat format = PropertyListFormat::xml) {
    return serializePropertyList(value, format).value();
}

inline std::string signedDocument(const PropertyList& bag) {
    return signBag(serialized(bag), bagKey()).value();
}

}  // namespace telvora::test
