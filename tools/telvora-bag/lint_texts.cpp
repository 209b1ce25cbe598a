// SPDX-License-Identifier: Apache-2.0
//
// Checks the syntax of texts.
#include <arpa/inet.h>

#include <charconv>

#include "http/http_request_rules.h"
#include "policy/event_filters.h"
#include "telvora-bag/lint_rules.h"
#include "util/base64.h"

namespace telvora::bag {

namespace {

void lintList(const std::string& path, const std::string& text, const std::string& emptyFits,
              Findings& findings) {
    for (const std::string_view part : splitList(&text)) {
        if (part.empty()) {
            findings.error(path, (text.empty() ? "is empty, which differs from absent: it matches "
                                               : "an element between the commas is empty: it matches ") +
                                     emptyFits);
        } else if (part.front() == ' ' || part.back() == ' ') {
            findings.error(path, inQuotes(part) + " has blanks at an end: they are part of the element");
        }
    }
}

void lintUrl(const std::string& path, const std::string& text, Findings& findings) {
    HttpRequest request;
    request.url = text;
    if (const auto fault = faultOfRequest(request)) {
        findings.error(path, "it can't be requested: " + *fault);
    } else if (!isSecureUrl(text)) {
        findings.warn(path, "is not https: reports can be read on the way");
    }
}

void lintAddress(const std::string& path, const std::string& text, Findings& findings) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) == 1) return;
    findings.error(path, inQuotes(text) + " is no IPv4 address: the backend is not made");
}

bool isVersionNumber(std::string_view text) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number <= 255;
}

// A version that versionComponents() would read as a different one.
void lintVersion(const std::string& path, std::string_view text, Findings& findings) {
    for (int count = 0; count < 3; ++count) {
        const size_t dot = text.find('.');
        const std::string_view number = text.substr(0, dot);
        if (!isVersionNumber(number)) {
            findings.error(
                path, inQuotes(number) + " is not one of the numbers 0 to 255 and counts as another one");
        }
        if (dot == std::string_view::npos) return;
        text.remove_prefix(dot + 1);
    }
    findings.warn(path, "only the first three numbers count");
}

}  // namespace

void lintText(const std::string& path, std::string_view text, ValueType type, Findings& findings) {
    switch (type) {
        case ValueType::list:
            return lintList(path, std::string(text), "no text", findings);
        case ValueType::names:
            return lintList(path, std::string(text), "only an empty name", findings);
        case ValueType::url:
            return lintUrl(path, std::string(text), findings);
        case ValueType::address:
            return lintAddress(path, std::string(text), findings);
        case ValueType::version:
            return lintVersion(path, text, findings);
        case ValueType::base64:
            if (base64Decode(text).value_or("").empty())
                findings.error(path, "is not base64: the document is refused");
            return;
        default:
            return;
    }
}

}  // namespace telvora::bag
