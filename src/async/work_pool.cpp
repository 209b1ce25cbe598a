// SPDX-License-Identifier: Apache-2.0
//
// A thread that blocks gives up its loop: the loop then waits for a thread that has none. A thread without a
// loop waits for one on a condition variable, and looks at the clock only then.
#include "async/work_pool.h"

#include <pthread.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <exception>
#include <new>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "util/attempt.h"
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

struct WorkPool::EventLoop {
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
};

struct WorkPool::Worker {
    State& pool;
    EventLoop* loop;  // null from a hand-over to the end of the work item
};

struct WorkPool::State : std::enable_shared_from_this<WorkPool::State> {
    State(size_t loopCount, std::chrono::milliseconds idle)
        : loops(std::max<size_t>(loopCount, 1)), surplusIdleTime(idle) {
        loopsWithoutThread.reserve(loops.size());
    }

    bool startThread() TELVORA_REQUIRES(mutex);
    void serve();
    static bool runOne(EventLoop& loop);
    EventLoop* nextLoop();
    void retire() TELVORA_REQUIRES(mutex);
    void handOver(Worker& worker);
    void stopAndJoin();

    static void* threadMain(void* argument);

    std::vector<EventLoop> loops;
    std::atomic<size_t> nextStrand{0};
    const std::chrono::milliseconds surplusIdleTime;

    Mutex mutex;
    std::condition_variable_any changed;
    bool stopping TELVORA_GUARDED_BY(mutex) = false;
    std::vector<pthread_t> threads TELVORA_GUARDED_BY(mutex);
    // Threads that have no loop and do not block.
    size_t idleThreads TELVORA_GUARDED_BY(mutex) = 0;
    std::vector<EventLoop*> loopsWithoutThread TELVORA_GUARDED_BY(mutex);  // with room for all
    // A retired thread, which the next one to retire joins.
    std::optional<pthread_t> retired TELVORA_GUARDED_BY(mutex);

    // The running thread, unless it has declared that it blocks.
    static thread_local Worker* current;
};

thread_local WorkPool::Worker* WorkPool::State::current = nullptr;

// The thread finds its loop itself.
bool WorkPool::State::startThread() {
    auto self = std::make_unique<std::shared_ptr<State>>(shared_from_this());
    threads.reserve(threads.size() + 1);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, &State::threadMain, self.get());
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        errno = error;
        return false;
    }
    static_cast<void>(self.release());  // owned by the thread now
    threads.push_back(thread);
    return true;
}

void* WorkPool::State::threadMain(void* argument) {
    const std::unique_ptr<std::shared_ptr<State>> state(static_cast<std::shared_ptr<State>*>(argument));
    pthread_setname_np(pthread_self(), "telvora-pool");
    try {
        (*state)->serve();
    } catch (const std::exception& error) {
        TELVORA_LOG(kLogError, "WorkPool: a work item threw: %s", error.what());
        std::terminate();
    } catch (...) {
        TELVORA_LOG(kLogError, "WorkPool: a work item threw.");
        std::terminate();
    }
    return nullptr;
}

void WorkPool::State::serve() {
    Worker worker{*this, nullptr};
    while ((worker.loop = nextLoop()) != nullptr) {
        current = &worker;
        while (worker.loop != nullptr && runOne(*worker.loop)) {
        }
        current = nullptr;
    }
}

// False if the loop has ended. A work item that there is no memory for is lost, not the process.
bool WorkPool::State::runOne(EventLoop& loop) try {
    return loop.context.run_one() != 0;
} catch (const std::bad_alloc&) {
    TELVORA_LOG(kLogError, "WorkPool: there is no memory for a work item.");
    return true;
}

// Waits for a loop without a thread. Null if the calling thread is to end.
WorkPool::EventLoop* WorkPool::State::nextLoop() {
    const auto deadline = SteadyClock::now() + surplusIdleTime;
    const MutexLock lock(mutex);
    ++idleThreads;
    bool inTime = true;
    while (!stopping && loopsWithoutThread.empty() && inTime)
        inTime = changed.wait_until(mutex, deadline) == std::cv_status::no_timeout;
    --idleThreads;
    if (stopping) return nullptr;
    if (loopsWithoutThread.empty()) {
        retire();
        return nullptr;
    }
    EventLoop* const loop = loopsWithoutThread.front();
    loopsWithoutThread.erase(loopsWithoutThread.begin());
    return loop;
}

// The former retired thread has nothing left to do but to end, so joining it does not wait for the lock.
void WorkPool::State::retire() {
    std::erase_if(threads, [](pthread_t thread) { return pthread_equal(thread, pthread_self()) != 0; });
    const std::optional<pthread_t> previous = std::exchange(retired, pthread_self());
    if (previous) pthread_join(*previous, nullptr);
}

void WorkPool::State::handOver(Worker& worker) {
    const MutexLock lock(mutex);
    if (stopping || worker.loop == nullptr) return;
    loopsWithoutThread.push_back(std::exchange(worker.loop, nullptr));
    if (loopsWithoutThread.size() <= idleThreads) {
        changed.notify_one();
    } else if (threads.size() >= loops.size() + kMaxSurplusThreads) {
        TELVORA_LOG(kLogDebug, "WorkPool: %zu threads, starting no more.", threads.size());
    } else {
        attempt("WorkPool", [this]() TELVORA_NO_THREAD_SAFETY_ANALYSIS {
            if (startThread()) return;
            TELVORA_LOG(kLogWarning, "WorkPool: can't start a thread: %s", errorText(errno).c_str());
        });
    }
}

void WorkPool::State::stopAndJoin() {
    std::vector<pthread_t> toJoin;
    {
        const MutexLock lock(mutex);
        stopping = true;
        toJoin = threads;
        changed.notify_all();
    }
    for (EventLoop& loop : loops)
        loop.context.stop();
    for (const pthread_t thread : toJoin)
        pthread_join(thread, nullptr);
    const MutexLock lock(mutex);
    threads.clear();
    if (retired) pthread_join(*std::exchange(retired, std::nullopt), nullptr);
}

WorkPool::WorkPool(size_t loops, std::chrono::milliseconds surplusIdleTime)
    : state_(std::make_shared<State>(loops, surplusIdleTime)) {
    int error = 0;
    {
        const MutexLock lock(state_->mutex);
        for (EventLoop& loop : state_->loops) {
            state_->loopsWithoutThread.push_back(&loop);
            if (error == 0 && !state_->startThread()) error = errno;
        }
    }
    if (error == 0) return;
    stop();
    throw std::system_error(error, std::generic_category(), "can't start the work pool");
}

WorkPool::~WorkPool() {
    stop();
}

Strand WorkPool::makeStrand() {
    const size_t turn = state_->nextStrand.fetch_add(1, std::memory_order_relaxed);
    return Strand(state_->loops[turn % state_->loops.size()].context);
}

void WorkPool::stop() {
    state_->stopAndJoin();
}

size_t WorkPool::threadCount() const {
    const MutexLock lock(state_->mutex);
    return state_->threads.size();
}

BlockingSection::BlockingSection() : worker_(std::exchange(WorkPool::State::current, nullptr)) {
    if (worker_ == nullptr) return;
    share_ = BlockingShare::current_;
    if (share_ != nullptr) share_->begin();
    worker_->pool.handOver(*worker_);
}

BlockingSection::~BlockingSection() {
    if (worker_ == nullptr) return;
    if (share_ != nullptr) share_->end();
    WorkPool::State::current = worker_;
}

}  // namespace telvora
