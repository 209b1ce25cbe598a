// SPDX-License-Identifier: Apache-2.0
//
// Shutdown: the daemon's orderly end. No new connection, every session ends as at its connection's end, and
// what is on its way to a server is waited for up to a deadline.
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>

namespace telvora {

// Belongs to the run loop that it is made with. The loop runs until the shutdown is complete.
class Shutdown {
  public:
    struct Steps {
        std::function<void()> stopAccepting;
        std::function<void()> endSessions;
        std::function<bool()> isIdle;  // whether all sessions have ended and nothing is in flight
    };

    Shutdown(asio::io_context& runLoop, Steps steps, std::chrono::milliseconds deadline);

    // Begins at the first SIGTERM or SIGINT; a second one ends the run loop at once.
    void onSignals();
    // Begins now. On the run loop's thread.
    void begin();
    // Something may have become idle: ends the run loop if that completes the shutdown. From any thread.
    void check();

  private:
    void awaitSignal();

    asio::io_context& runLoop_;
    const Steps steps_;
    const std::chrono::milliseconds deadline_;
    asio::signal_set signals_;
    asio::steady_timer timer_;
    bool begun_ = false;
};

}  // namespace telvora
