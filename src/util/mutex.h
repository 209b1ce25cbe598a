// SPDX-License-Identifier: Apache-2.0
//
// Mutexes that clang's thread-safety analysis understands, so that "which lock guards which member" is
// checked by the compiler and not only written down. Other compilers see plain std mutexes.
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

template <typename StdMutex>
class TELVORA_TSA(capability("mutex")) BasicMutex {
  public:
    void lock() TELVORA_TSA(acquire_capability()) { mutex_.lock(); }
    void unlock() TELVORA_TSA(release_capability()) { mutex_.unlock(); }
    bool try_lock() TELVORA_TSA(try_acquire_capability(true)) { return mutex_.try_lock(); }

  private:
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
