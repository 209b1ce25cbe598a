// SPDX-License-Identifier: Apache-2.0
#include "client/process_runtime.h"

#include <pthread.h>

#include <cstdlib>

namespace telvora {

std::atomic<ProcessRuntime*> ProcessRuntime::current = nullptr;
thread_local bool ProcessRuntime::Callback::running = false;

namespace {

void beforeFork() TELVORA_NO_THREAD_SAFETY_ANALYSIS {
    forkLock.lock();
}

void afterFork() TELVORA_NO_THREAD_SAFETY_ANALYSIS {
    forkLock.unlock();
}

// The number of forks between the process that loaded the library and this one. Unlike a process ID, reading
// it needs no system call.
std::atomic<unsigned> forks = 0;

void afterForkInChild() {
    ++forks;
    afterFork();
}

// Registered when the library is loaded, before any runtime exists.
[[maybe_unused]] const int forksAreSeen = pthread_atfork(beforeFork, afterFork, afterForkInChild);
std::atomic_flag exitIsSeen = ATOMIC_FLAG_INIT;  // children inherit the registration

}  // namespace

ProcessRuntime::ProcessRuntime() : forks_(forks) {}

bool ProcessRuntime::inherited() const {
    return forks_ != forks;
}

ProcessRuntime& ProcessRuntime::ofThisProcess() {
    ProcessRuntime* known = current.load();
    if (known != nullptr && !known->inherited()) return *known;
    std::unique_ptr<ProcessRuntime> made(new ProcessRuntime);
    if (!current.compare_exchange_strong(known, made.get())) return *known;  // another thread was faster
    if (!exitIsSeen.test_and_set()) std::atexit(atExit);
    return *made.release();
}

void ProcessRuntime::atExit() {
    ProcessRuntime* runtime = current.load();
    if (runtime->inherited()) return;
    runtime->exiting_ = true;
    if (Callback::isRunning()) return;
    std::unique_lock lock(runtime->lock_);
    runtime->workDone_.wait_for(lock, kExitPatience, [runtime] { return runtime->work_ == 0; });
}

void ProcessRuntime::workEnds() {
    if (--work_ != 0 || !exiting_) return;
    const std::lock_guard lock(lock_);
    workDone_.notify_all();
}

}  // namespace telvora
