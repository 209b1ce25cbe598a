// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

#include "access/peer.h"
#include "util/mutex.h"

namespace telvora {

// RefusalLog: logs at the default level the peers that are refused because they lack the entitlement, and
// counts all refused connections. A program that connects again and again must not fill the log: each user
// has one line per minute, with the number of refusals since the line before. Users without a refusal in the
// last minute are forgotten. Thread-safe.
class RefusalLog {
  public:
    using SteadyClock = std::function<std::chrono::steady_clock::time_point()>;

    // Refused connections by cause.
    struct Counts {
        uint64_t notEntitled = 0;
        uint64_t tooFrequent = 0;  // by refusesAtOnce()
        uint64_t overQuota = 0;
        Peer last;  // not entitled
        std::chrono::steady_clock::time_point lastTime;
    };

    explicit RefusalLog(SteadyClock clock = std::chrono::steady_clock::now) : clock_(std::move(clock)) {}

    void notEntitled(const Peer& peer) TELVORA_EXCLUDES(lock_);
    // Whether a new connection of the user is refused without a look at its program, which costs files: the
    // user had kMostInASecond refusals in this second. Counts the refusal then.
    bool refusesAtOnce(uid_t user) TELVORA_EXCLUDES(lock_);
    // Counts a connection that a quota refused; the quotas log it.
    void overQuota() TELVORA_EXCLUDES(lock_);
    Counts counts() const TELVORA_EXCLUDES(lock_);

    static constexpr uint64_t kMostInASecond = 100;

  private:
    struct Refusals {
        uint64_t unlogged = 0;
        std::chrono::steady_clock::time_point nextLine;  // not before
        uint64_t inThisSecond = 0;
        std::chrono::steady_clock::time_point nextSecond;
    };

    const SteadyClock clock_;
    mutable Mutex lock_;
    Counts counts_ TELVORA_GUARDED_BY(lock_);
    std::map<uid_t, Refusals> users_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
