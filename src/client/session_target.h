// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "client/request.h"

namespace telvora {

// Takes the calls of one session of libtelvora: the daemon or a recorder. Thread-safe.
class SessionTarget {
  public:
    // They run on the runtime's thread.
    struct Handlers {
        std::function<void(const AggregatedMessage& message)> message;  // the aggregation block, if any
        std::function<void(telvora_connection_event event, uint64_t lostCalls, const std::string& reason)>
            connection;
        // telvora_session_wait() waits until the returned object is destroyed.
        std::function<std::shared_ptr<const void>()> work;
    };

    virtual ~SessionTarget() = default;

    // If it returns TELVORA_OK, `done` runs exactly once, on the runtime's thread, or, for a request that is
    // not awaited, on any thread. Otherwise `done` is not called.
    virtual telvora_status call(Request&& request, AnswerHandler&& done) = 0;
    // Answers waiting calls with TELVORA_ERROR_CLOSED. No call follows.
    virtual void close() = 0;
    virtual uint64_t lostCalls() const = 0;
    // Whether a file to upload has to be open.
    virtual bool readsFiles() const = 0;
};

}  // namespace telvora
