// SPDX-License-Identifier: Apache-2.0
#include "answers.h"

#include <chrono>

#include "command.h"
#include "output.h"

namespace telvora::ctl {

namespace {

constexpr size_t kMaxWaiting = 512;

}  // namespace

bool Answers::expectOne() {
    std::unique_lock lock(mutex_);
    if (!waitUntil(lock, kMaxWaiting - 1, {})) return false;
    ++waiting_;
    return true;
}

bool Answers::wait(const std::string& activity) {
    std::unique_lock lock(mutex_);
    return waitUntil(lock, 0, activity);
}

int Answers::report() {
    const std::lock_guard lock(mutex_);
    if (!failure_) return fail(kNoAnswer, "the daemon did not answer");
    const bool lost = failure_->kind == CallFailure::Kind::kConnectionLost;
    return fail(lost ? kDaemonMissing : kNotDone, failure_->message);
}

bool Answers::waitUntil(std::unique_lock<std::mutex>& lock, size_t limit, const std::string& activity) {
    using Clock = std::chrono::steady_clock;
    Progress progress(!activity.empty());
    const auto begin = Clock::now();
    auto last = begin;  // time of the last answer
    while (waiting_ > limit && !failure_) {
        const size_t before = waiting_;
        const bool moved = changed_.wait_for(lock, std::chrono::duration<double>(std::min(timeout_, 1.0)),
                                             [&] { return waiting_ != before || failure_; });
        const auto now = Clock::now();
        if (moved) last = now;
        if (now - last >= std::chrono::duration<double>(timeout_)) return false;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - begin).count();
        progress.show(activity + ", " + std::to_string(seconds) + " s");
    }
    return !failure_;
}

}  // namespace telvora::ctl
