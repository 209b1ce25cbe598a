// SPDX-License-Identifier: Apache-2.0
#include "http/http_request_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>

#include "util/ascii.h"

namespace telvora {

namespace {

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return equalsIgnoringAsciiCase(text.substr(0, prefix.size()), prefix);
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

bool isUrlText(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return isControl(c) || c == ' '; });
}

bool isPort(std::string_view text) {
    uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, port);
    return text.empty() || (error == std::errc() && parsed == end);
}

// A host (an IPv6 address in brackets) with an optional port. User information before it is not checked.
bool isAuthority(std::string_view text) {
    text.remove_prefix(text.rfind('@') + 1);
    const size_t hostEnd = text.starts_with('[') ? text.find(']') : std::min(text.find(':'), text.size());
    if (hostEnd == std::string_view::npos) return false;
    std::string host(text.substr(0, hostEnd));
    text.remove_prefix(hostEnd);
    if (host.starts_with('[')) {
        host = host.substr(1, host.find('%') - 1);  // without the zone
        in6_addr address;
        if (inet_pton(AF_INET6, host.c_str(), &address) != 1) return false;
        text.remove_prefix(1);
    }
    if (host.empty() || host.find_first_of("[]") != std::string::npos) return false;
    return text.empty() || (text.starts_with(':') && isPort(text.substr(1)));
}

}  // namespace

bool isHeaderValue(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return isControl(c) && c != '\t'; });
}

bool isSecureUrl(std::string_view url) {
    return startsWithIgnoringCase(url, "https://");
}

std::string_view originOfUrl(std::string_view url) {
    if (!isSecureUrl(url) && !startsWithIgnoringCase(url, "http://")) return {};
    const size_t authority = url.find("://") + 3;
    const size_t end = std::min(url.find_first_of("/?#", authority), url.size());
    return end == authority ? std::string_view{} : url.substr(0, end);
}

std::string serverOfUrl(std::string_view url) {
    std::string_view host = originOfUrl(url);
    host.remove_prefix(host.find("://") + 3);
    host.remove_prefix(host.rfind('@') + 1);
    const size_t hostEnd = std::min(host.find(':', host.find(']') + 1), host.size());
    const bool isSecure = isSecureUrl(url);
    uint16_t port = isSecure ? 443 : 80;
    if (hostEnd < host.size()) std::from_chars(host.data() + hostEnd + 1, host.data() + host.size(), port);
    return (isSecure ? "https://" : "http://") + asciiLowerCase(host.substr(0, hostEnd)) + ":" +
           std::to_string(port);
}

std::string urlForLog(std::string_view url) {
    const std::string_view origin = originOfUrl(url);
    const size_t end = std::min(url.find_first_of("?#", origin.size()), url.size());
    const std::string_view path = url.substr(origin.size(), end - origin.size());
    const size_t at = origin.rfind('@');
    if (at == std::string_view::npos) return std::string(origin).append(path);
    return std::string(origin.substr(0, origin.find("://") + 3)).append(origin.substr(at + 1)).append(path);
}

std::optional<std::string> faultOfRequest(const HttpRequest& request) {
    if (!isToken(request.method)) return "method is not a token";
    const std::string_view origin = originOfUrl(request.url);
    if (origin.empty()) return "URL is not an absolute http or https URL";
    if (!isAuthority(origin.substr(origin.find("://") + 3))) return "URL has no valid host and port";
    if (!isUrlText(request.url)) return "URL contains blanks or control characters";
    for (const auto& [name, value] : request.headers) {
        if (!isToken(name)) return "header name is not a token";
        if (!isHeaderValue(value)) return "value of header " + name + " contains control characters";
    }
    return std::nullopt;
}

}  // namespace telvora
