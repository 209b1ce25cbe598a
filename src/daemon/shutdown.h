// SPDX-License-Identifier: Apache-2.0
//
// Shutdown: the daemon's orderly end. It accepts no new connection, ends every session, and waits for
// requests under way up to a deadline.
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>

#include "async/loop_task.h"

namespace telvora {

// Belongs to the run loop that it is made with. The loop runs until the shutdown is complete.
class Shutdown {
  public:
    struct Steps {
        std::function<void()> stopAccepting;
        std::function<void()> endSessions;
        // Ends the requests under way, at the deadline. True if their results need time: a second is left.
        std::function<bool()> giveUp;
        std::function<bool()> isIdle;  // whether all sessions have ended and no request is under way
    };

    Shutdown(asio::io_context& runLoop, Steps steps, std::chrono::milliseconds deadline);

    // Begins at the first SIGTERM or SIGINT; a second one ends the run loop at once.
    void onSignals();
    // Begins now. On the run loop's thread.
    void begin();
    // Ends the run loop if the daemon has become idle and the shutdown has begun. Callable from any thread;
    // needs no memory.
    void check() { check_.post(); }

  private:
    void awaitSignal();

    asio::io_context& runLoop_;
    const Steps steps_;
    const std::chrono::milliseconds deadline_;
    LoopTask check_;
    asio::signal_set signals_;
    asio::steady_timer timer_;
    bool begun_ = false;
};

}  // namespace telvora
