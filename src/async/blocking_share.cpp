// SPDX-License-Identifier: Apache-2.0
#include "async/blocking_share.h"

#include "util/attempt.h"

namespace telvora {

thread_local BlockingShare* BlockingShare::current_ = nullptr;

bool BlockingShare::mayStart(const std::function<void()>& resume) {
    if (blocked_ < kThreads) return true;
    const MutexLock lock(lock_);
    if (blocked_ < kThreads) return true;
    waiting_.push_back(resume);
    return false;
}

// All who wait ask again.
void BlockingShare::end() {
    --blocked_;
    std::vector<std::function<void()>> resumed;
    {
        const MutexLock lock(lock_);
        resumed.swap(waiting_);
    }
    for (const auto& resume : resumed)
        attempt("BlockingShare", resume);
}

}  // namespace telvora
