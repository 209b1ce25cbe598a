// SPDX-License-Identifier: Apache-2.0
//
// Reports in recordings and on standard input, one JSON object each:
//
//     {"category": 5, "type": 1, "payload": {"key": "value"}, "flag": 0}
//
// "category" and "type" (0 to 65535) are required. "flag" is 1 for realtime, 2 for promotion, 3 for both.
#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// The message dictionary (telvora/keys.h) that the object describes, or the reason of failure.
tl::expected<Dictionary, std::string> messageOfJson(std::string_view text);

}  // namespace telvora
