// SPDX-License-Identifier: Apache-2.0
//
// Reading the JSON messages (RFC 8259) that carry events, and writing property lists as JSON.
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

// Reads a message; members of other names are ignored. Fails with a reason on anything that is no JSON
// object, or holds null, which no event may.
tl::expected<EventMessage, std::string> parseEventMessage(std::string_view json);

// The numbers that the events of a message carry under `key`, in order: the cheap way to know which events
// came. Events without such a number, as the daemon's own are, are passed over. Fails with a reason on broken
// JSON.
tl::expected<std::vector<uint64_t>, std::string> eventNumbers(std::string_view json, std::string_view key);

// Any value as JSON (plist/json_writer.h).
std::string toJson(const PropertyList& value, bool pretty);

}  // namespace telvora::lab
