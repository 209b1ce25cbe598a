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
    // Without a client identifier, the message ends after the time and carries no events.
    std::optional<std::string> clientId;
    std::span<const Dictionary> events;  // JSON-safe
};

// Turns dates into seconds since 1970 and removes values that are neither numbers nor strings, nested
// containers included, with a line at level 4 each.
void makeJsonSafe(Dictionary& record);

// Writes the message without white space.
std::string compactJson(const JsonMessage& message);
// Writes the message on several indented lines.
std::string prettyJson(const JsonMessage& message);

}  // namespace telvora
