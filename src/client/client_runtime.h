// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <asio/steady_timer.hpp>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>

#include "async/work_pool.h"
#include "util/mutex.h"
#include "util/signal_mask.h"

namespace telvora {

// The background thread on which all sessions of a process talk to the daemon and run their callbacks. It is
// started with the first session; signals are none of its business. Thread-safe. To be destroyed after its
// sessions, and not on its own thread, that is in a callback; callbacks that have not run by then are told
// that the connection is lost.
class ClientRuntime {
  public:
    ClientRuntime() = default;
    ~ClientRuntime() = default;
    ClientRuntime(const ClientRuntime&) = delete;
    ClientRuntime& operator=(const ClientRuntime&) = delete;

    // Work for the thread, in order. Starts the thread when there is none; throws std::system_error when it
    // can't be started.
    Strand makeStrand() TELVORA_EXCLUDES(lock_) {
        const MutexLock lock(lock_);
        if (!pool_) {
            const SignalsBlocked inherited;
            pool_ = std::make_unique<WorkPool>(1);
        }
        return pool_->makeStrand();
    }

    // Runs `due` once after `delay`, on the thread, unless the timer that it returns has been given up by
    // then.
    std::shared_ptr<void> startTimer(std::chrono::milliseconds delay, std::function<void()> due)
        TELVORA_EXCLUDES(lock_) {
        auto timer = std::make_shared<asio::steady_timer>(makeStrand(), delay);
        timer->async_wait([due = std::move(due)](const asio::error_code& error) {
            if (!error) due();
        });
        return timer;
    }

  private:
    Mutex lock_{LockRank::clientRuntime};
    std::unique_ptr<WorkPool> pool_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
