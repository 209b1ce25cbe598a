// SPDX-License-Identifier: Apache-2.0
//
// The keep-alive transaction: open while the daemon has sessions. A daemon that its service manager started
// on demand, by a connection to the manager's socket, may end when it has idled; the manager starts it again
// at the next connection.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>

namespace telvora {

// A timer that runs a handler once on the main run loop. Its functions are called there, too.
class IdleTimer {
  public:
    virtual ~IdleTimer() = default;
    // Replaces a start before.
    virtual void start(std::chrono::milliseconds delay, std::function<void()> handler) = 0;
    virtual void cancel() = 0;
};

inline constexpr std::chrono::milliseconds kDefaultIdleTime = std::chrono::seconds(30);

struct KeepAliveOptions {
    // Whether the process may end by itself. If false, the options below are not used.
    bool launchedOnDemand = false;
    // Whether the daemon is needed although no transaction is open. Called on the main run loop.
    std::function<bool()> inFlight;
    // Called once on the main run loop when no transaction has been open for `idleTime`, from the start of
    // the run loop or the end of the last transaction, and the daemon is not needed otherwise.
    std::function<void()> onIdle;
    std::chrono::milliseconds idleTime = kDefaultIdleTime;
    std::unique_ptr<IdleTimer> timer = nullptr;  // null: real time
};

// begin() and end() may be called from any thread; constructor and destructor while the main run loop does
// not run, or on it. No timer runs while a transaction is open or in a process that was not launched on
// demand.
class KeepAliveTransaction {
  public:
    // `mainRunLoop` must outlive the transaction.
    KeepAliveTransaction(asio::io_context& mainRunLoop, KeepAliveOptions options);
    ~KeepAliveTransaction();
    KeepAliveTransaction(const KeepAliveTransaction&) = delete;
    KeepAliveTransaction& operator=(const KeepAliveTransaction&) = delete;

    // Opens the transaction. Calls nest; each needs its end().
    void begin();
    void end();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace telvora
