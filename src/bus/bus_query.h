// SPDX-License-Identifier: Apache-2.0
//
// One call of a program that has nothing else to do meanwhile: connects to a peer-to-peer D-Bus server on a
// Unix socket, calls, and waits for the answer.
#pragma once

#include <chrono>
#include <string>
#include <tl/expected.hpp>

#include "bus/bus_message.h"

namespace telvora {

struct BusQuery {
    std::string socketPath;
    const char* path = "";       // of the object
    const char* interface = "";  // all three as they stand in a call
    const char* method = "";
    std::chrono::milliseconds timeout{10'000};  // for the connection and for the answer, each
};

struct BusQueryFailure {
    enum class Kind {
        kUnreachable,  // nobody listens there, or the connection was lost
        kNoAnswer,     // in time
        kRefused,      // the answer is an error
    };
    Kind kind = Kind::kUnreachable;
    std::string message;  // for people
};

// The answer, at its first argument, or why there is none. Blocks the calling thread, which may be any; the
// answer belongs to it.
tl::expected<BusMessage, BusQueryFailure> callAndWait(const BusQuery& query);

}  // namespace telvora
