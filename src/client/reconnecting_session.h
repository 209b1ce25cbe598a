// SPDX-License-Identifier: Apache-2.0
//
// ReconnectingSession: a session that outlives its connections.
//
//                          a call, and no attempt within the last second
//              ┌────────────────────────────────────────────────────────────────┐
//              │                                                                ▼
//       ┌─────────────┐  the attempt fails: kept for replay, UNAVAILABLE  ┌────────────┐
//       │ unconnected │◀──────────────────────────────────────────────────│ connecting │
//       └─────────────┘                                                   └────────────┘
//              ▲                                                                │ the attempt succeeds:
//              │ the connection ends: its unanswered calls are lost,            │ replay, then the call
//              │ handlers.connection(LOST)                                      ▼
//              │                                                          ┌───────────┐
//              └──────────────────────────────────────────────────────────│ connected │──┐ a call: sent
//                                                                         └───────────┘◀─┘
//
// - Only a call connects; there is no timer and no thread that tries. Connecting does not block (unix(7): a
//   local socket connects at once or not at all), so "connecting" is a state only while call() has the lock.
// - Unconnected, a call within a second of an attempt that failed returns UNAVAILABLE without another. An
//   attempt has also failed when its connection ends before it has brought any answer: that is how the daemon
//   turns a client away. After a connection that was good, the next call tries at once.
// - The replay is what the application last told, whether or not it arrived: setSessionInfo with the newest
//   user info, and startConfig if that was asked for. What the call at hand tells itself is left out, so that
//   nothing is told twice. When the daemon has answered the replay, handlers.connection(RESTORED).
// - A call that was on its way is never sent again: nobody knows whether the daemon has carried it out. It is
//   answered LOST and counted.
#pragma once

#include <atomic>
#include <chrono>

#include "client/session_target.h"

namespace telvora {

class ReconnectingSession final : public SessionTarget,
                                  public std::enable_shared_from_this<ReconnectingSession> {
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    static constexpr std::chrono::seconds kRest{1};

    // `runtime` outlives the session.
    ReconnectingSession(ClientRuntime& runtime, std::string socketPath, Handlers handlers,
                        Clock clock = std::chrono::steady_clock::now);
    // Closes.
    ~ReconnectingSession() override;

    telvora_status call(Request request, AnswerHandler done) override TELVORA_EXCLUDES(lock_);
    void close() override TELVORA_EXCLUDES(lock_);
    uint64_t lostCalls() const override { return lostCalls_.load(); }
    bool readsFiles() const override { return true; }

  private:
    // One connection.
    struct Link {
        std::shared_ptr<ClientSession> session;
        std::atomic<size_t> unanswered = 0;  // calls of the application
        std::atomic<bool> good = false;      // an answer has come
        std::atomic<bool> ended = false;     // and what was unanswered is counted as lost
    };

    bool connect() TELVORA_REQUIRES(lock_);
    void remember(const Request& request) TELVORA_REQUIRES(lock_);
    void replay(bool info, bool start) TELVORA_REQUIRES(lock_);
    void send(Request request, AnswerHandler done) TELVORA_REQUIRES(lock_);
    void connectionLost(const std::shared_ptr<Link>& link, const std::string& reason) TELVORA_EXCLUDES(lock_);

    ClientRuntime& runtime_;
    const std::string socketPath_;
    const Handlers handlers_;
    const Clock clock_;
    std::atomic<uint64_t> lostCalls_ = 0;
    std::atomic<bool> closed_ = false;

    Mutex lock_{LockRank::clientSession};
    std::shared_ptr<Link> link_ TELVORA_GUARDED_BY(lock_);
    std::chrono::steady_clock::time_point nextAttempt_ TELVORA_GUARDED_BY(lock_);
    std::optional<Request> info_ TELVORA_GUARDED_BY(lock_);  // the newest setSessionInfo
    bool started_ TELVORA_GUARDED_BY(lock_) = false;
};

}  // namespace telvora
