// SPDX-License-Identifier: Apache-2.0
#include "util/base64.h"

#include <gtest/gtest.h>

namespace telvora {
namespace {

TEST(Base64Test, EncodesStreamsAndDecodesWholeGroupsAmongForeignCharacters) {
    EXPECT_EQ(base64Encode(""), "");
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
    std::string bytes;
    while (bytes.size() < (3 << 20) + 2)
        bytes.push_back(static_cast<char>(bytes.size() * 7));
    EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
    EXPECT_EQ(base64Decode("\n"), "");
    EXPECT_EQ(base64Decode(" Zm\r\n9v-Y*mE\t= "), "fooba");
    for (const char* malformed :
         {"Z", "Zg", "Zg=", "Zm8", "Zg==Zg==", "=Zg=", "Z===", "====", "Zm9v=", "Zm9v===="})
        EXPECT_EQ(base64Decode(malformed), std::nullopt) << malformed;
}

}  // namespace
}  // namespace telvora
