// SPDX-License-Identifier: Apache-2.0
//
// The JSON message (RFC 8259) that carries events to a server:
//
//     {"postTime": 1447660800.25, "clientId": "...", "events": [{...}, ...]}
//
// Numbers are written in the shortest form that reads back as the same value, NaN and infinity as -1.0, bytes
// that are no UTF-8 as U+FFFD. Thread-safe: no shared state.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "plist/property_list.h"

namespace telvora {

struct JsonMessage {
    double postTime = 0;  // seconds since 1970
    // Without it the message ends after the time: no message carries events without a client identifier.
    std::optional<std::string> clientId;
    std::span<const Dictionary> events;  // JSON-safe
};

// Makes a record one that JSON can carry: dates become seconds since 1970, numbers and strings stay, all else
// is removed with a line at level 4 each. Nested containers are therefore never sent.
void makeJsonSafe(Dictionary& record);

// Without any white space.
std::string compactJson(const JsonMessage& message);
// On several lines, for people to read.
std::string prettyJson(const JsonMessage& message);

}  // namespace telvora
