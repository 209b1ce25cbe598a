// SPDX-License-Identifier: Apache-2.0
//
// The shared pool that all strands run on. A strand (asio::strand) runs its work items one after another;
// different strands run in parallel on the pool's threads.
//
// Some work has to block: a bag fetch, an upload, the wait for a lock that is held across one of these. Such
// work says so with a BlockingSection, and the pool then keeps as many unblocked runners as it was made with,
// by starting one more thread where needed, so that nobody else's reports wait. Surplus threads end once they
// have not been needed for a while. An idle pool makes no system calls.
//
// All operations but stop() may be called from any thread. A work item must not throw: an exception that
// leaves one is logged at level 3 and ends the process. A work item that goes on to block posts what others
// are to do meanwhile; what it defers (asio::defer) would wait until it has returned.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/strand.hpp>
#include <chrono>
#include <cstddef>
#include <memory>

namespace telvora {

using Strand = asio::strand<asio::io_context::executor_type>;

class WorkPool {
  public:
    // How many threads may run beyond those that the pool was made with. When as many work items block, the
    // next blocking one takes a runner away until one of them returns.
    static constexpr size_t kMaxSurplusThreads = 256;

    // Starts `runners` threads (at least one); throws std::system_error when they can't be started. A thread
    // beyond them ends when it has not been needed for `surplusIdleTime`.
    explicit WorkPool(size_t runners, std::chrono::milliseconds surplusIdleTime = std::chrono::seconds(5));
    // Stops and joins. Work that has not begun is dropped. The pool's strands must not outlive it.
    ~WorkPool();
    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    asio::io_context& context();
    Strand makeStrand();

    // Ends the pool's threads once the work items that are running have returned; joins them. Idempotent. Not
    // to be called from a pool thread.
    void stop();

    // Threads alive now, blocked ones included.
    size_t threadCount() const;

  private:
    friend class BlockingSection;
    struct State;
    std::shared_ptr<State> state_;
};

// Declares that the calling thread may block until the section's end. On a thread that belongs to no pool it
// does nothing. Sections nest.
class BlockingSection {
  public:
    BlockingSection();
    ~BlockingSection();
    BlockingSection(const BlockingSection&) = delete;
    BlockingSection& operator=(const BlockingSection&) = delete;

  private:
    WorkPool::State* pool_;
};

}  // namespace telvora
