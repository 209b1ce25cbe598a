// SPDX-License-Identifier: Apache-2.0
#include "platform/http_request_rules.h"

#include <strings.h>

#include <algorithm>

namespace telvora {

namespace {

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// RFC 9110, section 5.6.2.
bool isToken(std::string_view text) {
    constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               kMarks.find(c) != std::string_view::npos;
    });
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool isFieldValue(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return isControl(c) && c != '\t'; });
}

bool isUrlText(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return isControl(c) || c == ' '; });
}

}  // namespace

bool isSecureUrl(std::string_view url) {
    return startsWithIgnoringCase(url, "https://");
}

std::string_view originOfUrl(std::string_view url) {
    if (!isSecureUrl(url) && !startsWithIgnoringCase(url, "http://")) return {};
    const size_t authority = url.find("://") + 3;
    const size_t end = std::min(url.find_first_of("/?#", authority), url.size());
    return end == authority ? std::string_view{} : url.substr(0, end);
}

std::optional<std::string> faultOfRequest(const HttpRequest& request) {
    if (!isToken(request.method)) return "method is not a token";
    if (originOfUrl(request.url).empty()) return "URL is not an absolute http or https URL";
    if (!isUrlText(request.url)) return "URL contains blanks or control characters";
    for (const auto& [name, value] : request.headers) {
        if (!isToken(name)) return "header name is not a token";
        if (!isFieldValue(value)) return "value of header " + name + " contains control characters";
    }
    return std::nullopt;
}

}  // namespace telvora
