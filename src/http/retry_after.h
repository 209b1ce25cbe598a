// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

#include "http/http_client.h"

namespace telvora {

// The time that an answer's Retry-After asks for (RFC 9110, section 10.2.3), a day at most. Zero if the
// answer has none, or one that can't be read. `now`: seconds since 1970, for a date.
std::chrono::seconds retryAfter(const HttpResult& result, double now);

}  // namespace telvora
