// SPDX-License-Identifier: Apache-2.0
//
// Blocking calls: connects to a peer-to-peer D-Bus server on a Unix socket, calls methods and waits for the
// answers.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "bus/authentication.h"
#include "bus/bus_input.h"
#include "bus/bus_message.h"
#include "util/unique_fd.h"
#include "wire/wire_writer.h"

namespace telvora {

struct BusQuery {
    const char* path = "";  // of the object
    const char* interface = "";
    const char* method = "";
    std::optional<std::chrono::milliseconds> timeout{10'000};  // absent: none
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

// A connection for calls, one after another. Belongs to one thread at a time.
class BusQueryConnection {
  public:
    static tl::expected<std::unique_ptr<BusQueryConnection>, BusQueryFailure> connect(
        const std::string& socketPath);

    // Passes the answer, at its first argument, to `read`, or returns the failure. Blocks the calling thread.
    // After kUnreachable or kNoAnswer, the connection can't be used.
    tl::expected<void, BusQueryFailure> call(const BusQuery& query,
                                             const std::function<void(BusMessage& answer)>& read);

  private:
    static constexpr bool kTakesDescriptors = false;  // no answer carries one

    explicit BusQueryConnection(UniqueFd socket);
    tl::expected<bool, std::string> takeAnswer(MessageView& answer);

    UniqueFd socket_;
    ClientAuthentication authentication_{kTakesDescriptors};
    bool authenticated_ = false;
    BusInput input_;
    uint32_t serial_ = 0;
};

}  // namespace telvora
