// SPDX-License-Identifier: Apache-2.0
//
// The initial threads stay in asio's run(): idle, they wait in the kernel without a timeout. Only surplus
// threads look at the clock.
#include "async/work_pool.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "util/error_text.h"
#include "util/log.h"
#include "util/mutex.h"

namespace telvora {

namespace {

// Enough for the work of a strand. The default of 8 MiB counts against the memory limits of a daemon.
// Sanitizers add red zones around every local variable.
#ifdef TELVORA_SANITIZED
constexpr size_t kStackBytes = size_t{8} << 20;
#else
constexpr size_t kStackBytes = size_t{512} << 10;
#endif

using SteadyClock = std::chrono::steady_clock;

}  // namespace

struct WorkPool::State : std::enable_shared_from_this<WorkPool::State> {
    State(size_t runnerCount, std::chrono::milliseconds idle)
        : runners(std::max<size_t>(runnerCount, 1)), surplusIdleTime(idle), work(context.get_executor()) {}

    bool startThread(bool surplus) TELVORA_REQUIRES(mutex);
    void serveUntilStopped();
    void serveWhileNeeded();
    bool retire();
    void beginBlocking();
    void endBlocking();
    void stopAndJoin();
    bool hasSurplus() const TELVORA_REQUIRES(mutex) { return threads.size() > runners + blocked; }

    static void* threadMain(void* argument);

    const size_t runners;
    const std::chrono::milliseconds surplusIdleTime;
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work;

    Mutex mutex;
    bool stopping TELVORA_GUARDED_BY(mutex) = false;
    std::vector<pthread_t> threads TELVORA_GUARDED_BY(mutex);
    size_t blocked TELVORA_GUARDED_BY(mutex) = 0;
    // The last time at which the pool had no more threads than the blocking work needed.
    SteadyClock::time_point lastNeeded TELVORA_GUARDED_BY(mutex);
    // A retired thread, which the next one to retire joins.
    std::optional<pthread_t> retired TELVORA_GUARDED_BY(mutex);

    // The pool of the running thread while that thread is not blocked.
    static thread_local State* current;
};

thread_local WorkPool::State* WorkPool::State::current = nullptr;

namespace {

struct ThreadStart {
    std::shared_ptr<void> state;
    bool surplus;
};

}  // namespace

bool WorkPool::State::startThread(bool surplus) {
    auto start = std::make_unique<ThreadStart>(ThreadStart{shared_from_this(), surplus});
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, &State::threadMain, start.get());
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        errno = error;
        return false;
    }
    static_cast<void>(start.release());  // owned by the thread now
    threads.push_back(thread);
    return true;
}

void* WorkPool::State::threadMain(void* argument) {
    const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
    State& state = *static_cast<State*>(start->state.get());
    current = &state;
    pthread_setname_np(pthread_self(), "telvora-pool");
    try {
        if (start->surplus) {
            state.serveWhileNeeded();
        } else {
            state.serveUntilStopped();
        }
    } catch (const std::exception& error) {
        TELVORA_LOG(kLogError, "WorkPool: a work item threw: %s", error.what());
        std::terminate();
    } catch (...) {
        TELVORA_LOG(kLogError, "WorkPool: a work item threw.");
        std::terminate();
    }
    current = nullptr;
    return nullptr;
}

void WorkPool::State::serveUntilStopped() {
    context.run();
}

void WorkPool::State::serveWhileNeeded() {
    while (!context.stopped() && !retire())
        context.run_one_for(surplusIdleTime);
}

// Removes the calling thread from the pool if it has been surplus for long enough.
bool WorkPool::State::retire() {
    std::optional<pthread_t> previous;
    {
        MutexLock lock(mutex);
        if (stopping || !hasSurplus() || SteadyClock::now() - lastNeeded < surplusIdleTime) return false;
        std::erase_if(threads, [](pthread_t thread) { return pthread_equal(thread, pthread_self()) != 0; });
        previous = std::exchange(retired, pthread_self());
    }
    if (previous) pthread_join(*previous, nullptr);
    return true;
}

void WorkPool::State::beginBlocking() {
    MutexLock lock(mutex);
    ++blocked;
    if (hasSurplus()) return;
    lastNeeded = SteadyClock::now();
    if (stopping || threads.size() == runners + blocked) return;
    if (threads.size() >= runners + kMaxSurplusThreads) {
        TELVORA_LOG(kLogDebug, "WorkPool: %zu threads, starting no more.", threads.size());
    } else if (!startThread(true)) {
        TELVORA_LOG(kLogWarning, "WorkPool: can't start a thread: %s", errorText(errno).c_str());
    }
}

void WorkPool::State::endBlocking() {
    MutexLock lock(mutex);
    --blocked;
}

void WorkPool::State::stopAndJoin() {
    std::vector<pthread_t> toJoin;
    {
        MutexLock lock(mutex);
        stopping = true;
        toJoin = threads;
    }
    context.stop();
    for (const pthread_t thread : toJoin)
        pthread_join(thread, nullptr);
    MutexLock lock(mutex);
    threads.clear();
    if (retired) pthread_join(*std::exchange(retired, std::nullopt), nullptr);
}

WorkPool::WorkPool(size_t runners, std::chrono::milliseconds surplusIdleTime)
    : state_(std::make_shared<State>(runners, surplusIdleTime)) {
    int error = 0;
    {
        MutexLock lock(state_->mutex);
        while (error == 0 && state_->threads.size() < state_->runners) {
            if (!state_->startThread(false)) error = errno;
        }
    }
    if (error == 0) return;
    stop();
    throw std::system_error(error, std::generic_category(), "can't start the work pool");
}

WorkPool::~WorkPool() {
    stop();
}

asio::io_context& WorkPool::context() {
    return state_->context;
}

Strand WorkPool::makeStrand() {
    return asio::make_strand(state_->context);
}

void WorkPool::stop() {
    state_->stopAndJoin();
}

size_t WorkPool::threadCount() const {
    MutexLock lock(state_->mutex);
    return state_->threads.size();
}

BlockingSection::BlockingSection() : pool_(std::exchange(WorkPool::State::current, nullptr)) {
    if (pool_ != nullptr) pool_->beginBlocking();
}

BlockingSection::~BlockingSection() {
    if (pool_ == nullptr) return;
    pool_->endBlocking();
    WorkPool::State::current = pool_;
}

}  // namespace telvora
