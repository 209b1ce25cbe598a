// SPDX-License-Identifier: Apache-2.0
//
// Mutexes with annotations for clang's thread-safety analysis, so that the compiler checks which lock guards
// which member. Other compilers ignore the annotations.
//
// In builds with sanitizers each mutex also checks the order of locks: if a thread takes a lock whose rank is
// not above the ranks of all locks that it holds, the process ends with both locks' names on standard error,
// even if no other thread would have deadlocked. Other builds do not check.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

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

// The order of locks: a thread takes a lock only while all locks that it holds have a lower rank.
// docs/threads.md gives the reasons.
enum class LockRank : unsigned char {
    // Of the daemon.
    agent,           // the registry; the bag cache and the hierarchy
    session,         // a session's identity; its backends
    identifiers,     // DeviceIdentity
    defaultsWrites,  // UserDefaults, held during file I/O
    defaults,        // UserDefaults
    accounts,        // of a client
    ledger,          // of all clients
    users,           // UserQuotas
    messageLog,      // MessageLogState, held during file I/O
    // Of the client library.
    clientSession,  // ReconnectingSession, RecordedSession
    fork,
    clientRuntime,
    // Of both.
    leaf,     // every other lock
    userLog,  // the log lines of a user: no line is logged while it is held
    log,      // LogWriter
};

#ifdef TELVORA_SANITIZED

// Names a mutex in the message about a broken order: its rank, and the place of its construction.
struct LockName {
    LockRank rank;
    const char* file;
    int line;
};

// Called by the mutexes below. checkLockOrder() ends the process if the calling thread may not take the lock
// now; a recursive mutex that the thread already holds is allowed.
void checkLockOrder(const void* mutex, const LockName& taking);
void noteUnlocked(const void* mutex);

#endif

// A recursive mutex for which threads queue: a thread that unlocks it and locks it at once does not pass a
// thread that waits. With std::recursive_mutex, a busy thread can keep others waiting for many rounds.
class QueuedRecursiveMutex {
  public:
    void lock() {
        if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
            const std::lock_guard first(firstInQueue_);
            mutex_.lock();
            owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
        }
        ++depth_;
    }
    void unlock() {
        if (--depth_ > 0) return;
        owner_.store({}, std::memory_order_relaxed);
        mutex_.unlock();
    }

  private:
    std::mutex firstInQueue_;
    std::mutex mutex_;
    std::atomic<std::thread::id> owner_{};  // only the owner finds its own ID here
    int depth_ = 0;                         // guarded by mutex_
};

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
using RecursiveMutex = BasicMutex<QueuedRecursiveMutex>;

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
