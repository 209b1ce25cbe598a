// SPDX-License-Identifier: Apache-2.0
//
// A call as a hierarchy of sessions: "call" at the top aggregates, "audio" and "video" stand below it.
#pragma once

#include <string>
#include <vector>

#include "client/client_session.h"
#include "util/mutex.h"

namespace telvora::demo {

// Must outlive the runtime that runs its callbacks.
class Call {
  public:
    // Opens the three sessions, sends their reports, and ends the sessions, the lower ones first. Returns the
    // faults of the messages that the aggregation block received, one line each.
    std::vector<std::string> hold(ClientRuntime& runtime, const std::string& socketPath);

  private:
    void take(AggregatedMessage message) TELVORA_EXCLUDES(mutex_);
    // Waits until the block has received so many messages.
    bool waitFor(size_t count) const TELVORA_EXCLUDES(mutex_);
    std::vector<std::string> faults() const TELVORA_EXCLUDES(mutex_);

    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    std::vector<AggregatedMessage> messages_ TELVORA_GUARDED_BY(mutex_);
};

// Checks the IDs under which the call's reports arrived: they must form one tree, with the call at its top
// and the two others directly below it. Returns the faults, one line each.
std::vector<std::string> placesInCall(const std::vector<Dictionary>& events);

}  // namespace telvora::demo
