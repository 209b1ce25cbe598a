// SPDX-License-Identifier: Apache-2.0
//
// The keep-alive transaction: open while there is anybody to serve. A daemon that its service manager started
// on demand, by a connection to a socket that the manager holds, may end when it has idled; the manager
// starts it again at the next connection.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>

namespace telvora {

// A timer that runs a handler once, on the main run loop, which is also where it is called.
class IdleTimer {
  public:
    virtual ~IdleTimer() = default;
    // Replaces what was started before.
    virtual void start(std::chrono::milliseconds delay, std::function<void()> handler) = 0;
    virtual void cancel() = 0;
};

inline constexpr std::chrono::milliseconds kDefaultIdleTime = std::chrono::seconds(30);

struct KeepAliveOptions {
    // Whether the process may end by itself at all. Without it nothing below is ever used.
    bool launchedOnDemand = false;
    // Asked on the main run loop: whether work is still on its way that no transaction stands for.
    std::function<bool()> inFlight;
    // Called on the main run loop, once, when no transaction has been open for `idleTime`, counted from the
    // start of the run loop or the last transaction's end, and nothing is in flight.
    std::function<void()> onIdle;
    std::chrono::milliseconds idleTime = kDefaultIdleTime;
    std::unique_ptr<IdleTimer> timer = nullptr;  // null: real time
};

// begin() and end() may be called from any thread; made and destroyed while the main run loop does not run,
// or on it. While a transaction is open, and in a process that was not launched on demand, no timer runs.
class KeepAliveTransaction {
  public:
    // `mainRunLoop` must outlive the transaction.
    KeepAliveTransaction(asio::io_context& mainRunLoop, KeepAliveOptions options);
    ~KeepAliveTransaction();
    KeepAliveTransaction(const KeepAliveTransaction&) = delete;
    KeepAliveTransaction& operator=(const KeepAliveTransaction&) = delete;

    // Opens the transaction; begins nest and each needs its end.
    void begin();
    void end();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace telvora
