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

// Counts calls that wait for their answer, and keeps the first failure. Must outlive the runtime on whose
// thread the answers come.
class Answers {
  public:
    // `timeout`: seconds in which the next answer must come.
    explicit Answers(double timeout) : timeout_(timeout) {}

    // Before a call is made: waits for room. False when no answer came for too long, or a call has failed.
    bool expectOne();
    // Waits for all of them; false likewise. On a terminal, tells for how long it has been doing `what`.
    bool wait(const std::string& what = {});
    // A completion that hands the answer to `use` on success.
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
    // Why expectOne() or wait() said no, as an exit status with a line on standard error.
    int report();

  private:
    bool waitUntil(std::unique_lock<std::mutex>& lock, size_t limit, const std::string& what);

    const double timeout_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t waiting_ = 0;
    std::optional<CallFailure> failure_;
};

}  // namespace telvora::ctl
