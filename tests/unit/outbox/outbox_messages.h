// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "backends/message_outbox.h"

namespace telvora::test {

inline OutboxMessage messageOf(const std::string& body, const std::string& server = "https://one.example",
                               uid_t user = 1000) {
    HttpRequest request{.method = "POST", .url = server + "/events", .body = body, .user = user};
    request.headers = {{"Idempotency-Key", "\"key of " + body.substr(0, 20) + "\""}, {"Empty", ""}};
    return {.request = request, .reports = 1, .identifier = "device"};
}

}  // namespace telvora::test
