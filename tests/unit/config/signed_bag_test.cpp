// SPDX-License-Identifier: Apache-2.0
#include "config/signed_bag.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/unit/config/bag_test_support.h"

namespace telvora {
namespace {

using test::bagKey;
using test::serialized;

constexpr const char* kMissing = "<3>fetchStorebagWithName: Signature is missing";
constexpr const char* kNotVerified = "<3>fetchStorebagWithName: Signature can not be verified, 0x";
constexpr const char* kParseError = "<3>fetchStorebagWithName: propertyListWithData error ";

const Dictionary kBag{{"version", "1"}, {"release", Dictionary{{"httpPost", Dictionary{{"active", true}}}}}};

TEST(SignedBag, OpensWhatItsKeySigned) {
    const std::string key = bagKey().publicKeyToDer();
    for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
        const std::string document = signBag(serialized(kBag, format), bagKey()).value();
        EXPECT_EQ(openSignedBag(document, key), kBag);
        Dictionary outer = *parsePropertyList(document)->getIf<Dictionary>();
        const std::string* text = outer.string("bag");
        outer.set("bag", "\n  " + text->substr(0, 5) + "\r\n" + text->substr(5));
        outer.set("other", 1);
        EXPECT_EQ(openSignedBag(serialized(outer, PropertyListFormat::binary), key), kBag);
    }
}

TEST(SignedBag, OpensNothingElse) {
    const std::string inner = serialized(kBag);
    const std::string signature = base64Encode(bagKey().signSha1(inner));
    const RsaPrivateKey otherKey = RsaPrivateKey::generate(2048).value();
    const std::string key = bagKey().publicKeyToDer();
    std::string tampered = inner;
    tampered[tampered.find("httpPost")] = 'H';
    const std::string list = serialized(Array{1});

    const struct {
        const char* what;
        std::string document;
        std::optional<std::string> key;
        std::vector<std::string> log;  // beginnings of the lines
    } cases[] = {
        {"empty", "", key, {kParseError, kMissing}},
        {"not a property list", "<html>no</html>", key, {kParseError, kMissing}},
        {"not a dictionary", list, key, {kMissing}},
        {"no signature", serialized(Dictionary{{"bag", base64Encode(inner)}}), key, {kMissing}},
        {"signature of another type",
         serialized(Dictionary{{"bag", base64Encode(inner)}, {"signature", 1}}),
         key,
         {kMissing}},
        {"no key", test::signedDocument(kBag), std::nullopt, {}},
        {"a key that is none", test::signedDocument(kBag), "no key", {}},
        {"signature not base64",
         serialized(Dictionary{{"bag", base64Encode(inner)}, {"signature", "AAA"}}),
         key,
         {}},
        {"no bag", serialized(Dictionary{{"signature", signature}}), key, {}},
        {"bag not base64", serialized(Dictionary{{"bag", "="}, {"signature", signature}}), key, {}},
        {"tampered",
         serialized(Dictionary{{"bag", base64Encode(tampered)}, {"signature", signature}}),
         key,
         {kNotVerified}},
        {"signed with another key", signBag(inner, otherKey).value(), key, {kNotVerified}},
        {"inner not a dictionary", signBag(list, bagKey()).value(), key, {}},
        {"inner not a property list", signBag("hello", bagKey()).value(), key, {}},
    };
    for (const auto& each : cases) {
        const test::LogCapture log;
        EXPECT_EQ(openSignedBag(each.document, each.key), std::nullopt) << each.what;
        const std::vector<std::string> lines = log.lines();
        ASSERT_EQ(lines.size(), each.log.size()) << each.what;
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_TRUE(lines[i].starts_with(each.log[i])) << each.what << ": " << lines[i];
    }
}

}  // namespace
}  // namespace telvora
