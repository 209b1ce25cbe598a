// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "client/client_session.h"

namespace telvora::ctl {

// Counts calls that wait for their answer, and stores the first failure. Must outlive the runtime on whose
// thread the answers arrive.
class Answers {
  public:
    // `timeout`: the seconds within which the next answer must come.
    explicit Answers(double timeout) : timeout_(timeout) {}

    // Called before a call: waits for room. False if no answer came within the timeout, or a call has failed.
    bool expectOne();
    // Waits for all answers; false likewise. On a terminal, shows `activity` and the elapsed time.
    bool wait(const std::string& activity = {});
    // A completion that passes a successful answer to `use`.
    template <typename T, typename Use>
    Completion<T> completion(Use use) {
        return [this, use = std::move(use)](tl::expected<T, CallFailure> answer) {
            if constexpr (std::is_void_v<T>) {
                if (answer) use();
            } else {
                if (answer) use(*answer);
            }
            const std::lock_guard lock(mutex_);
            --waiting_;
            if (!answer && !failure_) failure_ = answer.error();
            changed_.notify_all();
        };
    }
    // The first failure of a call, if there was one.
    std::optional<CallFailure> failure() {
        const std::lock_guard lock(mutex_);
        return failure_;
    }
    // The reason why expectOne() or wait() returned false: an exit status, after a line on standard error.
    int report();

  private:
    bool waitUntil(std::unique_lock<std::mutex>& lock, size_t limit, const std::string& activity);

    const double timeout_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t waiting_ = 0;
    std::optional<CallFailure> failure_;
};

}  // namespace telvora::ctl
