// SPDX-License-Identifier: Apache-2.0
#include "config/signed_bag.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/signed_document.h"
#include "util/base64.h"

namespace telvora::test {
namespace {

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
    // The longest bag.
    const std::string start = "<dict><key>k</key><string>", end = "</string></dict>";
    const std::string longest = start + std::string(kMaxInnerBagBytes - start.size() - end.size(), 'x') + end;
    EXPECT_TRUE(openSignedBag(signBag(longest, bagKey()).value(), key));
    EXPECT_FALSE(signBag(longest + " ", bagKey()));
}

TEST(SignedBag, OpensNothingElse) {
    const std::string inner = serialized(kBag), list = serialized(Array{1});
    const std::string key = bagKey().publicKeyToDer(), whole = signedDocument(kBag);
    const PropertyList signature = base64Encode(bagKey().signSha1(inner));
    const RsaPrivateKey otherKey = RsaPrivateKey::generate(2048).value();
    std::string tampered = inner, deep;
    for (int i = 0; i < 65; ++i)
        deep = "<array>" + deep + "</array>";
    tampered[tampered.find("httpPost")] = 'H';
    const auto document = [](const PropertyList& bag, const PropertyList& signedWith) {
        return serialized(Dictionary{{"bag", bag}, {"signature", signedWith}});
    };
    const struct {
        std::string document;
        std::optional<std::string> key;
        std::vector<std::string> log = {};  // beginnings of the lines
    } cases[] = {
        {"", key, {kParseError, kMissing}},
        {"<html>no</html>", key, {kParseError, kMissing}},
        {list, key, {kMissing}},
        {serialized(Dictionary{{"bag", base64Encode(inner)}}), key, {kMissing}},
        {document(base64Encode(inner), 1), key, {kMissing}},
        {whole, std::nullopt},
        {whole, "no key"},
        {document(base64Encode(inner), "AAA"), key},
        {serialized(Dictionary{{"signature", signature}}), key},
        {document("=", signature), key},
        {document(base64Encode(tampered), signature), key, {kNotVerified}},
        {document(base64Encode(inner), ""), key, {kNotVerified}},
        {document("", signature), key, {kNotVerified}},
        {signBag(inner, otherKey).value(), key, {kNotVerified}},
        {signBag(list, bagKey()).value(), key},
        {signBag("hello", bagKey()).value(), key},
        {signBag(deep, bagKey()).value(),
         key,
         {"<3>fetchStorebagWithName: The bag is over a limit: nested more"}},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.document);
        const LogCapture log;
        EXPECT_EQ(openSignedBag(each.document, each.key), std::nullopt);
        const std::vector<std::string> lines = log.lines();
        ASSERT_EQ(lines.size(), each.log.size());
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_TRUE(lines[i].starts_with(each.log[i])) << lines[i];
    }
}

}  // namespace
}  // namespace telvora::test
