// SPDX-License-Identifier: Apache-2.0
#include "async/user_turns.h"

#include <time.h>

#include <algorithm>
#include <asio/execution_context.hpp>
#include <asio/post.hpp>
#include <deque>
#include <list>
#include <new>
#include <utility>

#include "async/loop_task.h"
#include "util/mutex.h"

namespace telvora {

namespace {

// The turns that wait in one event loop. asio makes one for each loop, and destroys it with the loop.
class TurnQueue final : public asio::execution_context::service {
  public:
    using key_type = TurnQueue;
    static asio::execution_context::id id;

    explicit TurnQueue(asio::execution_context& loop)
        : service(loop), next_(static_cast<asio::io_context&>(loop), [this] { runNext(); }) {}

    void add(const std::shared_ptr<UserTurns>& user, Strand strand, std::function<void()> turn)
        TELVORA_EXCLUDES(lock_) {
        const MutexLock lock(lock_);
        auto found = std::find_if(users_.begin(), users_.end(),
                                  [&](const Waiting& waiting) { return waiting.user == user; });
        if (found == users_.end()) found = users_.insert(users_.end(), {user, {}});
        try {
            found->turns.emplace_back(std::move(strand), std::move(turn));
        } catch (const std::bad_alloc&) {
            if (found->turns.empty()) users_.erase(found);
            throw;
        }
        next_.post();
    }

  private:
    struct Waiting {
        std::shared_ptr<UserTurns> user;
        std::deque<std::pair<Strand, std::function<void()>>> turns;
    };

    // The turns own connections, whose end takes locks.
    void shutdown() override {
        std::list<Waiting> dropped;
        const MutexLock lock(lock_);
        dropped.swap(users_);
    }
    // The loop handles other input between two turns.
    void runNext() TELVORA_EXCLUDES(lock_) {
        const MutexLock lock(lock_);
        if (users_.empty()) return;
        auto [strand, turn] = std::move(users_.front().turns.front());
        users_.front().turns.pop_front();
        if (users_.front().turns.empty()) {
            users_.pop_front();
        } else {
            users_.splice(users_.end(), users_, users_.begin());
        }
        if (!users_.empty()) next_.post();
        asio::post(strand, std::move(turn));
    }

    Mutex lock_;
    std::list<Waiting> users_ TELVORA_GUARDED_BY(lock_);  // each with turns
    LoopTask next_;
};

asio::execution_context::id TurnQueue::id;

}  // namespace

uint64_t UserTurns::milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

void UserTurns::add(size_t bytes) {
    const uint64_t now = milliseconds();
    if (now - windowStart_.load(std::memory_order_relaxed) <= kWindowMilliseconds) {
        bytes_.fetch_add(bytes, std::memory_order_relaxed);
        return;
    }
    // A window that is cut off does not make a busy user idle.
    bytes_.store(isBusy() ? kBusyBytes + bytes : bytes, std::memory_order_relaxed);
    windowStart_.store(now, std::memory_order_relaxed);
}

bool UserTurns::isBusy() const {
    return bytes_.load(std::memory_order_relaxed) > kBusyBytes &&
           milliseconds() - windowStart_.load(std::memory_order_relaxed) <= 2 * kWindowMilliseconds;
}

void UserTurns::queue(const std::shared_ptr<UserTurns>& user, const Strand& strand,
                      std::function<void()> turn) {
    asio::use_service<TurnQueue>(strand.context()).add(user, strand, std::move(turn));
}

}  // namespace telvora
