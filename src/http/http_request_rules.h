// SPDX-License-Identifier: Apache-2.0
//
// What a request must look like before it is put on the wire. URLs come from bags and header values from
// clients, so a line feed in one of them must not become a header of its own. Thread-safe: no shared state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "http/http_client.h"

namespace telvora {

// What is wrong with the request's method, URL or headers (RFC 9110, sections 4.2, 5 and 9), or nothing. The
// text names the part, never its content.
std::optional<std::string> faultOfRequest(const HttpRequest& request);

// Whether a header can have the value: no control character but a tab.
bool isHeaderValue(std::string_view text);

// Scheme and authority of an absolute http or https URL: what its connections are shared by. Empty for other
// URLs.
std::string_view originOfUrl(std::string_view url);

bool isSecureUrl(std::string_view url);

}  // namespace telvora
