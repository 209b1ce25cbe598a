// SPDX-License-Identifier: Apache-2.0
#include "http/http_request_rules.h"

#include <gtest/gtest.h>

#include "util/letter_case.h"

namespace telvora {
namespace {

TEST(HttpRequestRules, RefusesWhatWouldBreakTheWire) {
    for (const char* url :
         {"ftp://host/", "file:///etc/passwd", "host/path", "https:///path", "", "http://host/a b",
          "http://host/\nX: y", "https://host:99999/", "https://host:-1/", "https://host:1x", "https://:80/",
          "https://u:p@", "http://[::1/", "http://[::1]x/", "http://[]/", "http://[1.2.3.4]/", "http://a]b/",
          "http://a:b:80/"})
        EXPECT_TRUE(faultOfRequest({.url = url}).has_value()) << url;
    for (const char* url :
         {"http://host:/", "http://host:65535?x", "http://[::1]", "https://[fe80::1%25eth0]:443/",
          "https://u:p@host:1/", "http://127.0.0.1#f", "https://\xC3\xA4.example"})
        EXPECT_EQ(faultOfRequest({.url = url}), std::nullopt) << url;
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
