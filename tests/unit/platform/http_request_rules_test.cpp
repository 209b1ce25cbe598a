// SPDX-License-Identifier: Apache-2.0
#include "platform/http_request_rules.h"

#include <gtest/gtest.h>

#include "platform/letter_case.h"

namespace telvora {
namespace {

TEST(HttpRequestRules, RefusesWhatWouldBreakTheWire) {
    const struct {
        const char* what;
        HttpRequest request;
    } cases[] = {
        {"another scheme", {.url = "ftp://host/"}},
        {"a local file", {.url = "file:///etc/passwd"}},
        {"no scheme", {.url = "host/path"}},
        {"no host", {.url = "https:///path"}},
        {"empty", {.url = ""}},
        {"blank in the URL", {.url = "http://host/a b"}},
        {"line feed in the URL", {.url = "http://host/\nX: y"}},
        {"blank in the method", {.method = "GET /", .url = "http://host/"}},
        {"header by line feed", {.url = "http://host/", .headers = {{"X", "a\r\nEvil: b"}}}},
        {"zero byte in a value", {.url = "http://host/", .headers = {{"X", std::string("a\0b", 3)}}}},
        {"colon in a name", {.url = "http://host/", .headers = {{"X: y", "a"}}}},
        {"empty name", {.url = "http://host/", .headers = {{"", "a"}}}},
    };
    for (const auto& each : cases)
        EXPECT_TRUE(faultOfRequest(each.request).has_value()) << each.what;
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
    EXPECT_EQ(lowerCase("Com.Zandor.APP_1"), "com.zandor.app_1");
    EXPECT_EQ(lowerCase("\xC3\x84\xD0\x96 X\xFF\xC3"), "\xC3\xA4\xD0\xB6 x\xFF\xC3");
}

}  // namespace
}  // namespace telvora
