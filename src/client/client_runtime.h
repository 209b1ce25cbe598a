// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "platform/work_pool.h"
#include "util/mutex.h"

namespace telvora {

// The background thread on which all sessions of a process talk to the daemon and run their callbacks. It is
// started with the first session. Thread-safe. To be destroyed after its sessions, and not on its own thread,
// that is in a callback; callbacks that have not run by then are told that the connection is lost.
class ClientRuntime {
  public:
    ClientRuntime() = default;
    ~ClientRuntime() = default;
    ClientRuntime(const ClientRuntime&) = delete;
    ClientRuntime& operator=(const ClientRuntime&) = delete;

    // Work for the thread, in order. Starts the thread when there is none.
    Strand makeStrand() TELVORA_EXCLUDES(lock_) {
        const MutexLock lock(lock_);
        if (!pool_) pool_ = std::make_unique<WorkPool>(1);
        return pool_->makeStrand();
    }

  private:
    Mutex lock_;
    std::unique_ptr<WorkPool> pool_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
