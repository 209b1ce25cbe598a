// SPDX-License-Identifier: Apache-2.0
//
// Rules for requests before they are sent. URLs come from bags and header values from clients, so a line feed
// in one of them must not become a header of its own. Thread-safe: no shared state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "http/http_client.h"

namespace telvora {

// The fault of the request's method, URL or headers (RFC 9110, sections 4.2, 5 and 9); std::nullopt if they
// are valid. The text names the part, never its content.
std::optional<std::string> faultOfRequest(const HttpRequest& request);

// Whether a header can have this value: it has no control character except tabs.
bool isHeaderValue(std::string_view text);

// Scheme and authority of an absolute http or https URL. Empty for other URLs.
std::string_view originOfUrl(std::string_view url);

// Scheme, host and port of such a URL, in lower case and without user information: URLs of one server have
// the same.
std::string serverOfUrl(std::string_view url);

// Such a URL for a log line: without user information, query and fragment, which may be secret.
std::string urlForLog(std::string_view url);

bool isSecureUrl(std::string_view url);

}  // namespace telvora
