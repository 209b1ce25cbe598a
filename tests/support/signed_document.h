// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fstream>
#include <iterator>

#include "config/bag_signing.h"
#include "plist/property_list_format.h"

namespace telvora::test {

// The key of all tests of a build tree.
inline const RsaPrivateKey& bagKey() {
    static const RsaPrivateKey key = [] {
        std::ifstream file(TELVORA_TEST_BAG_KEY);
        return RsaPrivateKey::fromPem(std::string(std::istreambuf_iterator<char>(file), {})).value();
    }();
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
