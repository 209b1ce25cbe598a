// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "telvora-lab/event_json.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/inflated.h"

namespace telvora::test {

// The uncompressed message of events in a request.
inline lab::EventMessage messageOf(const HttpRequest& request) {
    const bool compressed = headerOf(request, "Content-Encoding") == "gzip";
    return lab::parseEventMessage(compressed ? inflated(request.body).value() : request.body).value();
}

}  // namespace telvora::test
