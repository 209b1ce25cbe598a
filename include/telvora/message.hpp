// SPDX-License-Identifier: Apache-2.0
//
// Arguments of a session's handlers.
#pragma once

#include <cstdint>
#include <string_view>

#include "telvora/value.hpp"

namespace telvora {
inline namespace v1 {

// Argument of a message handler; see telvora_message_handler. Valid during the call.
struct Message {
    View sessionInfo;
    Time timestamp;
    uint16_t category = 0;
    uint16_t type = 0;
    View payload;

    bool isEndMarker() const {
        return !sessionInfo && !payload && timestamp == Time() && category == 0 && type == 0;
    }
};

// Argument of a connection handler; see telvora_connection_handler. Valid during the call.
struct ConnectionChange {
    telvora_connection_event event = TELVORA_CONNECTION_LOST;
    uint64_t lostCalls = 0;
    std::string_view reason;
};

}  // namespace v1
}  // namespace telvora
