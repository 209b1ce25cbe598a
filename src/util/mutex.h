// SPDX-License-Identifier: Apache-2.0
//
// Mutexes that clang's thread-safety analysis understands, so that "which lock guards which member" is
// checked by the compiler and not only written down. Other compilers see plain std mutexes.
//
// In builds with sanitizers each mutex also checks the order in which locks are taken: a thread that takes a
// lock of a rank that is not above those of all locks it holds ends the process, with both locks' names on
// standard error, whether or not another thread would have deadlocked with it that time. Other builds pay
// nothing for it.
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define TELVORA_TSA(x) __attribute__((x))
#else
#define TELVORA_TSA(x)
#endif

#define TELVORA_GUARDED_BY(lock) TELVORA_TSA(guarded_by(lock))
#define TELVORA_REQUIRES(...) TELVORA_TSA(requires_capability(__VA_ARGS__))
#define TELVORA_EXCLUDES(...) TELVORA_TSA(locks_excluded(__VA_ARGS__))
#define TELVORA_NO_THREAD_SAFETY_ANALYSIS TELVORA_TSA(no_thread_safety_analysis)

namespace telvora {

// The order of locks: of those that one thread holds, each was taken after all of a lower rank. Two locks of
// one rank are never held together. docs/threads.md says why.
enum class LockRank : unsigned char {
    // The daemon's.
    agent,        // the registry; the bag cache and the hierarchy
    session,      // a session's identity; its backends
    identifiers,  // DeviceIdentity
    defaults,     // UserDefaults
    accounts,     // of a client
    ledger,       // of all clients
    users,        // UserQuotas
    // The client library's.
    clientSession,  // ReconnectingSession, RecordedSession
    fork,
    clientRuntime,
    // Both's.
    leaf,     // every other lock
    userLog,  // the log lines of a user: under it nothing is logged, under all others something may be
};

#ifdef TELVORA_SANITIZED

// Names a mutex in the message about a broken order: its rank, and where it was made.
struct LockName {
    LockRank rank;
    const char* file;
    int line;
};

// For the mutexes below, on the calling thread. taking() ends the process if the order forbids it; a
// recursive mutex that the thread holds already is no further one.
void checkLockOrder(const void* mutex, const LockName& taking);
void noteUnlocked(const void* mutex);

#endif

template <typename StdMutex>
class TELVORA_TSA(capability("mutex")) BasicMutex {
  public:
#ifdef TELVORA_SANITIZED
    constexpr explicit BasicMutex(LockRank rank = LockRank::leaf, const char* file = __builtin_FILE(),
                                  int line = __builtin_LINE())
        : name_{rank, file, line} {}
#else
    constexpr explicit BasicMutex(LockRank /*rank*/ = LockRank::leaf) {}
#endif

    void lock() TELVORA_TSA(acquire_capability()) {
        check();
        mutex_.lock();
    }
    void unlock() TELVORA_TSA(release_capability()) {
        mutex_.unlock();
        forget();
    }
    bool try_lock() TELVORA_TSA(try_acquire_capability(true)) {
        check();
        const bool locked = mutex_.try_lock();
        if (!locked) forget();
        return locked;
    }

  private:
#ifdef TELVORA_SANITIZED
    void check() {
        checkLockOrder(this, name_);
    }
    void forget() {
        noteUnlocked(this);
    }

    const LockName name_;
#else
    void check() {}
    void forget() {}
#endif
    StdMutex mutex_;
};

using Mutex = BasicMutex<std::mutex>;
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds a mutex for a scope.
template <typename M>
class TELVORA_TSA(scoped_lockable) BasicMutexLock {
  public:
    explicit BasicMutexLock(M& mutex) TELVORA_TSA(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~BasicMutexLock() TELVORA_TSA(release_capability()) { mutex_.unlock(); }
    BasicMutexLock(const BasicMutexLock&) = delete;
    BasicMutexLock& operator=(const BasicMutexLock&) = delete;

  private:
    M& mutex_;
};

using MutexLock = BasicMutexLock<Mutex>;
using RecursiveMutexLock = BasicMutexLock<RecursiveMutex>;

}  // namespace telvora
