// SPDX-License-Identifier: Apache-2.0
//
// ReconnectingSession: a session that outlives its connections.
//
//              a call, and no attempt within the last second; or the session's own retry
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
// - A call connects. Connecting does not block (unix(7): a local socket connects at once or fails), so
//   "connecting" is a state only while the lock is held.
// - Unconnected, a call within a second of a failed attempt returns UNAVAILABLE without another attempt. An
//   attempt has also failed if its connection ends before the first answer: the daemon refuses a client this
//   way. After a good connection, the next call connects at once.
// - A session with a message handler reconnects by itself, because its children report without it meanwhile:
//   at once after a connection that was good for a second; otherwise, or if that fails, after 1 s, 2 s, 4 s
//   and so on, up to kMaxRetryDelay. All other sessions have no timer; this one has a timer only after a
//   loss.
// - The replay restores the daemon's session: setSessionInfo with the newest user info, and startConfig if
// the
//   application called it, whether or not these calls arrived. User info that was withdrawn stays withdrawn,
//   and the session's first report has the user info of the current call. The replay leaves out a call that
//   equals the current call. When the daemon has answered the replay, handlers.connection(RESTORED).
// - A startConfig on a configured session makes the daemon's backends anew, without their batches. A flush
//   precedes it.
// - A call that was on its way is not sent again, because the daemon may have carried it out. It is answered
//   LOST and counted.
#pragma once

#include <atomic>
#include <chrono>

#include "client/session_target.h"

namespace telvora {

class ReconnectingSession final : public SessionTarget,
                                  public std::enable_shared_from_this<ReconnectingSession> {
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    // Runs `due` once on the runtime's thread, after `delay`, unless the returned timer has been destroyed by
    // then.
    using StartTimer =
        std::function<std::shared_ptr<void>(std::chrono::milliseconds delay, std::function<void()> due)>;
    static constexpr std::chrono::seconds kMinRetryDelay{1};
    static constexpr std::chrono::seconds kMaxRetryDelay{600};

    // `runtime` outlives the session. Without `startTimer`, the runtime's timers.
    ReconnectingSession(ClientRuntime& runtime, std::string socketPath, Handlers handlers,
                        Clock clock = std::chrono::steady_clock::now, StartTimer startTimer = {});
    // Closes.
    ~ReconnectingSession() override;

    telvora_status call(Request&& request, AnswerHandler&& done) override TELVORA_EXCLUDES(lock_);
    void close() override TELVORA_EXCLUDES(lock_);
    uint64_t lostCalls() const override { return losses_->calls.load(); }
    bool readsFiles() const override { return true; }

  private:
    struct Losses {
        std::atomic<uint64_t> calls = 0;
        std::atomic<bool> closed = false;
    };
    // The part of a connection that its answers use. It lives as long as the connection's handlers, and so
    // longer than the calls.
    struct Traffic {
        explicit Traffic(std::shared_ptr<Losses> ofSession) : losses(std::move(ofSession)) {}
        void answered(Answer& answer);

        const std::shared_ptr<Losses> losses;  // the session may end before its answers
        std::atomic<size_t> unanswered = 0;    // calls of the application
        std::atomic<bool> good = false;        // an answer has come
        std::atomic<bool> ended = false;       // and its unanswered calls are counted as lost
    };
    // One connection.
    struct Link {
        std::shared_ptr<Traffic> traffic;
        std::shared_ptr<ClientSession> session;
        std::chrono::steady_clock::time_point since;
        bool started = false;  // startConfig was called; under lock_
    };
    // The newest setSessionInfo, with the newest user info.
    struct Info {
        Dictionary sessionInfo;
        std::optional<Dictionary> userInfo;
        std::vector<std::string> frameworksToCheck;
    };
    // Copies of a call's arguments, for the replay.
    struct Remembered {
        explicit Remembered(const Request& request);

        std::optional<Info> info;
        std::optional<Dictionary> userInfo;
        std::optional<bool> requiresUserInfo;
        bool setsUserInfo = false;
    };

    bool connectForCall() TELVORA_REQUIRES(lock_);
    bool connect() TELVORA_REQUIRES(lock_);
    void reconnect(bool atOnce) TELVORA_EXCLUDES(lock_);
    void remember(Remembered& given, Operation operation) TELVORA_REQUIRES(lock_);
    void replay(bool info, bool start) TELVORA_REQUIRES(lock_);
    void open(Request&& request, AnswerHandler&& done) TELVORA_REQUIRES(lock_);
    static void send(const Link& link, Request&& request, bool restarts, AnswerHandler&& done);
    void connectionLost(const std::shared_ptr<Link>& link, const std::string& reason) TELVORA_EXCLUDES(lock_);

    ClientRuntime& runtime_;
    const std::string socketPath_;
    const Handlers handlers_;
    const Clock clock_;
    const StartTimer startTimer_;
    const std::shared_ptr<Losses> losses_ = std::make_shared<Losses>();

    Mutex lock_{LockRank::clientSession};
    std::shared_ptr<Link> link_ TELVORA_GUARDED_BY(lock_);
    std::chrono::steady_clock::time_point nextAttempt_ TELVORA_GUARDED_BY(lock_);  // of a call
    std::shared_ptr<void> retry_ TELVORA_GUARDED_BY(lock_);  // the timer, while one runs
    std::chrono::milliseconds retryDelay_ TELVORA_GUARDED_BY(lock_) = kMinRetryDelay;
    std::optional<Info> info_ TELVORA_GUARDED_BY(lock_);
    bool requiresUserInfo_ TELVORA_GUARDED_BY(lock_) = false;
    bool started_ TELVORA_GUARDED_BY(lock_) = false;
};

}  // namespace telvora
