// SPDX-License-Identifier: Apache-2.0
//
// CallQueue: passes the calls of a session from the application's threads to the library's. No thread waits
// for another. The calls are in the order in which push() was called.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace telvora {

// `Call` has a member `Call* next`, which belongs to the queue.
template <typename Call>
class CallQueue {
  public:
    CallQueue() = default;
    ~CallQueue() {
        while (pop()) {
        }
    }
    CallQueue(const CallQueue&) = delete;
    CallQueue& operator=(const CallQueue&) = delete;

    // From any thread. True if the consumer has to be told: it has taken, or is taking, all calls before.
    bool push(std::unique_ptr<Call> call) {
        Call* const only = call.release();
        return push(only, only);
    }
    // Adds two calls, with no other call between them.
    bool push(std::unique_ptr<Call> first, std::unique_ptr<Call> second) {
        second->next = first.get();
        return push(first.release(), second.release());
    }

    // From one thread at a time. The oldest call; null if there is none.
    std::unique_ptr<Call> pop() {
        if (oldest_ == nullptr) reverse(newest_.exchange(nullptr, std::memory_order_acquire));
        if (oldest_ == nullptr) return nullptr;
        return std::unique_ptr<Call>(std::exchange(oldest_, oldest_->next));
    }

  private:
    bool push(Call* first, Call* last) {
        Call* newest = newest_.load(std::memory_order_relaxed);
        do {
            first->next = newest;
        } while (!newest_.compare_exchange_weak(newest, last, std::memory_order_release,
                                                std::memory_order_relaxed));
        return newest == nullptr;
    }
    void reverse(Call* newest) {
        while (newest != nullptr)
            oldest_ = std::exchange(newest, std::exchange(newest->next, oldest_));
    }

    std::atomic<Call*> newest_ = nullptr;  // each call points to the one before it
    Call* oldest_ = nullptr;               // each call points to the one after it
};

}  // namespace telvora
