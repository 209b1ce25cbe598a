// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "client/request.h"

namespace telvora {

// Where the calls of one session of libtelvora go: to the daemon, or to a recorder. Thread-safe.
class SessionTarget {
  public:
    // They run on the runtime's thread.
    struct Handlers {
        std::function<void(const AggregatedMessage& message)> message;  // the aggregation block, if any
        std::function<void(telvora_connection_event event, uint64_t lostCalls, const std::string& reason)>
            connection;
        // Something that telvora_session_wait() waits for, for as long as it lives.
        std::function<std::shared_ptr<const void>()> work;
    };

    virtual ~SessionTarget() = default;

    // TELVORA_OK: `done` runs exactly once, on the runtime's thread, or, for a request that is not awaited,
    // on any. Else it is given up uncalled.
    virtual telvora_status call(Request request, AnswerHandler done) = 0;
    // Ends it: answers what waits with TELVORA_ERROR_CLOSED. No call follows.
    virtual void close() = 0;
    virtual uint64_t lostCalls() const = 0;
    // Whether a file to upload has to be open.
    virtual bool readsFiles() const = 0;
};

}  // namespace telvora
