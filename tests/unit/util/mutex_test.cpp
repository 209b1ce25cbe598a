// SPDX-License-Identifier: Apache-2.0
#include "util/mutex.h"

#include <gtest/gtest.h>

namespace telvora {
namespace {

#ifdef TELVORA_SANITIZED

TEST(MutexDeathTest, LocksAreTakenInTheOrderOfTheirRanks) {
    const struct {
        LockRank held, taken;
        const char* broken;  // null: allowed
    } cases[] = {
        {LockRank::agent, LockRank::session, nullptr},
        {LockRank::leaf, LockRank::userLog, nullptr},
        {LockRank::session, LockRank::agent, "takes agent \\(.*mutex_test.*\\) while it holds session \\("},
        {LockRank::agent, LockRank::agent, "takes agent .* while it holds agent"},
        {LockRank::leaf, LockRank::leaf, "takes leaf .* while it holds leaf"},
    };
    for (const auto& [held, taken, broken] : cases) {
        Mutex first(held), second(taken);
        const auto takeBoth = [&] {
            const MutexLock outer(first);
            const MutexLock inner(second);
        };
        const auto tryBoth = [&] {
            const MutexLock outer(first);
            if (second.try_lock()) second.unlock();
        };
        if (broken == nullptr) {
            takeBoth();
            tryBoth();
        } else {
            EXPECT_DEATH(takeBoth(), broken);
            EXPECT_DEATH(tryBoth(), broken);
        }
        // Released locks do not count.
        { const MutexLock lock(second); }
        { const MutexLock lock(first); }
    }
    RecursiveMutex again(LockRank::agent);
    Mutex inner(LockRank::session);
    const RecursiveMutexLock lock(again);
    const MutexLock innerLock(inner);
    [&again] { const RecursiveMutexLock relock(again); }();
}

#endif

}  // namespace
}  // namespace telvora
