// SPDX-License-Identifier: Apache-2.0
#include "util/mutex.h"

#ifdef TELVORA_SANITIZED

#include <array>
#include <cstdio>
#include <cstdlib>

namespace telvora {

namespace {

struct HeldLock {
    const void* mutex;
    LockName name;
};

// A type without constructor and destructor: locks may be taken while a thread begins or ends.
struct HeldLocks {
    std::array<HeldLock, 32> locks;
    size_t count;
};
thread_local HeldLocks held;

const char* nameOf(LockRank rank) {
    static constexpr std::array<const char*, static_cast<size_t>(LockRank::log) + 1> kNames = {
        "agent",    "session",       "identifiers", "defaultsWrites", "defaults",
        "accounts", "ledger",        "users",       "messageLog",     "clientSession",
        "fork",     "clientRuntime", "leaf",        "userLog",        "log"};
    return kNames[static_cast<size_t>(rank)];
}

[[noreturn]] void failBecause(const char* reason, const LockName& taking, const LockName& holding) {
    std::fprintf(stderr, "Mutex: %s: takes %s (%s:%d) while it holds %s (%s:%d)\n", reason,
                 nameOf(taking.rank), taking.file, taking.line, nameOf(holding.rank), holding.file,
                 holding.line);
    std::abort();
}

}  // namespace

void checkLockOrder(const void* mutex, const LockName& taking) {
    bool again = false;
    for (size_t i = 0; i < held.count; ++i)
        again = again || held.locks[i].mutex == mutex;
    for (size_t i = 0; i < held.count && !again; ++i) {
        const LockName& holding = held.locks[i].name;
        if (taking.rank <= holding.rank) failBecause("the order of locks is broken", taking, holding);
    }
    if (held.count == held.locks.size()) {
        failBecause("too many locks", taking, held.locks[held.count - 1].name);
    }
    held.locks[held.count++] = {mutex, taking};
}

void noteUnlocked(const void* mutex) {
    for (size_t i = held.count; i > 0; --i) {
        if (held.locks[i - 1].mutex != mutex) continue;
        for (--held.count; i <= held.count; ++i)
            held.locks[i - 1] = held.locks[i];
        return;
    }
}

}  // namespace telvora

#endif
