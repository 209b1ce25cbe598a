// SPDX-License-Identifier: Apache-2.0
//
// The thread pool that all strands run on. Different strands run in parallel on the pool's threads.
//
// The pool has a fixed number of event loops, and each strand belongs to one of them. A loop is run by one
// thread at a time, so that a work item runs on the thread that waited for its event. The hand-over to
// another thread would cost more than most work items.
//
// Work that blocks (a bag fetch, an upload, the wait for a lock that is held across one of these) declares it
// with a BlockingSection. Another thread then takes over the loop, and is started if necessary, so that other
// strands do not wait. Surplus threads end after some idle time. An idle pool makes no system calls.
//
// All operations except stop() are callable from any thread. A work item must not throw: an exception that
// leaves it is logged at level 3, and ends the process unless it is std::bad_alloc. A work item that goes on
// to block posts work for other threads with asio::post: work that it defers (asio::defer) would wait until
// the item returns.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "async/blocking_share.h"
#include "async/strand.h"

namespace telvora {

class WorkPool {
  public:
    // The most threads beyond one for each loop. If as many work items block, the loop of the next blocking
    // item waits until one of them returns.
    static constexpr size_t kMaxSurplusThreads = 256;

    // Starts `loops` loops (at least one), each with a thread; throws std::system_error if the threads can't
    // be started. Surplus threads end after `surplusIdleTime` without need.
    explicit WorkPool(size_t loops, std::chrono::milliseconds surplusIdleTime = std::chrono::seconds(5));
    // Stops and joins. Work that has not begun is dropped. Strands of the pool must not outlive it.
    ~WorkPool();
    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    // A strand of the next loop in turn.
    Strand makeStrand();

    // Ends and joins the pool's threads once their running work items have returned. Idempotent. Not to be
    // called from a pool thread.
    void stop();

    // The number of threads that are alive, blocked ones included.
    size_t threadCount() const;

  private:
    friend class BlockingSection;
    struct EventLoop;
    struct Worker;
    struct State;
    std::shared_ptr<State> state_;
};

// Declares that the calling thread may block during the scope, and charges it to the BlockingShare in force.
// Without effect on threads outside a pool. Sections nest.
class BlockingSection {
  public:
    BlockingSection();
    ~BlockingSection();
    BlockingSection(const BlockingSection&) = delete;
    BlockingSection& operator=(const BlockingSection&) = delete;

  private:
    WorkPool::Worker* worker_;
    BlockingShare* share_ = nullptr;
};

}  // namespace telvora
