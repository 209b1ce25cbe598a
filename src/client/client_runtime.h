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

// Held while a session connects. fork(2) waits for it (process_runtime.cpp), so the locks that connecting
// takes are free in the child, and the child can connect sessions of its
// own.
inline Mutex forkLock{LockRank::fork};

// The background thread on which all sessions of a process communicate with the daemon and run their
// callbacks. It starts with the first session and blocks all signals. Thread-safe. Must be destroyed after
// its sessions, and not in a callback; completions that have not run by then get
// CallFailure::Kind::kConnectionLost.
class ClientRuntime {
  public:
    ClientRuntime() = default;
    ~ClientRuntime() = default;
    ClientRuntime(const ClientRuntime&) = delete;
    ClientRuntime& operator=(const ClientRuntime&) = delete;

    // A strand of the thread. Starts the thread if it does not run; throws std::system_error if that fails.
    Strand makeStrand() TELVORA_EXCLUDES(lock_) {
        const MutexLock lock(lock_);
        if (!pool_) {
            const SignalsBlocked inherited;
            pool_ = std::make_unique<WorkPool>(1);
        }
        return pool_->makeStrand();
    }

    // Runs `due` once on the thread, after `delay`, unless the returned timer has been destroyed by then.
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
