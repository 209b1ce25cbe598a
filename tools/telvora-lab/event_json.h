// SPDX-License-Identifier: Apache-2.0
//
// Reads the JSON messages (RFC 8259) that carry events, and writes property lists as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "plist/property_list.h"

namespace telvora::lab {

struct EventMessage {
    std::optional<double> postTime;
    std::optional<std::string> clientId;
    std::optional<std::vector<Dictionary>> events;
};

// Reads a message and ignores members of other names. Fails with a reason if the text is not a JSON object,
// or holds null, which events may not contain.
tl::expected<EventMessage, std::string> parseEventMessage(std::string_view json);

// The numbers of a message's events under `key`, in order. It is faster than reading the whole message.
// Events without such a number are skipped; the daemon's own reports have none. Fails with a reason on broken
// JSON.
tl::expected<std::vector<uint64_t>, std::string> eventNumbers(std::string_view json, std::string_view key);

// Any value as JSON: data as base64, dates as seconds since 1970, NaN and infinity as -1.0.
std::string toJson(const PropertyList& value, bool pretty);

}  // namespace telvora::lab
