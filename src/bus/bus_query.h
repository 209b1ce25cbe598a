// SPDX-License-Identifier: Apache-2.0
//
// One blocking call: connects to a peer-to-peer D-Bus server on a Unix socket, calls a method and waits for
// the answer.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <tl/expected.hpp>

#include "bus/bus_message.h"
#include "wire/wire_writer.h"

namespace telvora {

struct BusQuery {
    std::string socketPath;
    const char* path = "";  // of the object
    const char* interface = "";
    const char* method = "";
    std::chrono::milliseconds timeout{10'000};  // of the whole
    // Signature and wire form of the arguments; empty for a method without arguments.
    std::string signature = {};
    std::function<bool(WireWriter& body)> write = {};
};

struct BusQueryFailure {
    enum class Kind {
        kUnreachable,  // no listener, or the connection was lost
        kNoAnswer,     // in time
        kRefused,      // the answer is an error
    };
    Kind kind = Kind::kUnreachable;
    std::string message;  // for people
};

// Passes the answer, at its first argument, to `read`, or returns the failure. Blocks the calling thread,
// which may be any.
tl::expected<void, BusQueryFailure> callAndWait(const BusQuery& query,
                                                const std::function<void(BusMessage& answer)>& read);

}  // namespace telvora
