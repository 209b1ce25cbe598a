// SPDX-License-Identifier: Apache-2.0
#include "platform/http_request_rules.h"

#include <gtest/gtest.h>

#include "platform/letter_case.h"

namespace telvora {
namespace {

TEST(HttpRequestRules, RefusesWhatWouldBreakTheWire) {
    for (const char* url : {"ftp://host/", "file:///etc/passwd", "host/path", "https:///path", "",
                            "http://host/a b", "http://host/\nX: y"})
        EXPECT_TRUE(faultOfRequest({.url = url}).has_value()) << url;
    EXPECT_TRUE(faultOfRequest({.method = "GET /", .url = "http://host/"}).has_value());
    const std::pair<std::string, std::string> headers[] = {
        {"X", "a\r\nEvil: b"}, {"X", std::string("a\0b", 3)}, {"X: y", "a"}, {"", "a"}};
    for (const auto& [name, value] : headers)
        EXPECT_TRUE(faultOfRequest({.url = "http://host/", .headers = {{name, value}}}).has_value()) << name;
    EXPECT_EQ(
        faultOfRequest({.method = "POST", .url = "HTTPS://host:1/a?b", .headers = {{"X-Y", "z\t\xC3\xA4"}}}),
        std::nullopt);
}

TEST(HttpRequestRules, OriginIsSchemeAndAuthority) {
    EXPECT_EQ(originOfUrl("https://host:8443/a/b?c=http://d/"), "https://host:8443");
    EXPECT_EQ(originOfUrl("http://host?x"), "http://host");
    EXPECT_EQ(originOfUrl("http://[::1]:80"), "http://[::1]:80");
}

TEST(LetterCase, LowersUtf8AndLeavesOtherBytes) {
    EXPECT_EQ(lowerCase("\xC3\x84\xD0\x96 X\xFF\xC3"), "\xC3\xA4\xD0\xB6 x\xFF\xC3");
}

}  // namespace
}  // namespace telvora
