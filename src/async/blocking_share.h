// SPDX-License-Identifier: Apache-2.0
//
// BlockingShare: one user's part of the threads that a WorkPool has for blocking work. While the user's work
// blocks as many threads as that, no further work of the user should start: it might block one more.
//
// All operations are callable from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

#include "util/mutex.h"

namespace telvora {

class BlockingShare {
  public:
    // An eighth of the threads (WorkPool::kMaxSurplusThreads).
    static constexpr size_t kThreads = 32;

    // Whether work of the user may start. If not, calls `resume` once when a thread of the share is free, on
    // any thread.
    bool mayStart(const std::function<void()>& resume) TELVORA_EXCLUDES(lock_);

    // Charges the blocking sections of the calling thread to a share during the scope. Null: to nobody.
    class Scope {
      public:
        explicit Scope(BlockingShare* share) : former_(std::exchange(current_, share)) {}
        ~Scope() { current_ = former_; }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        BlockingShare* const former_;
    };

  private:
    friend class BlockingSection;

    void begin() { ++blocked_; }
    void end() TELVORA_EXCLUDES(lock_);

    static thread_local BlockingShare* current_;
    std::atomic<size_t> blocked_{0};
    Mutex lock_;
    std::vector<std::function<void()>> waiting_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
