// SPDX-License-Identifier: Apache-2.0
//
// A serial work queue together with what a datagram protocol needs on it: a clock, timers and sockets. One
// interface, so that a protocol can run on the work pool and the network, or in virtual time without either.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <tl/expected.hpp>

#include "async/udp_socket.h"
#include "async/work_pool.h"

namespace telvora {

using SteadyTime = std::chrono::steady_clock::time_point;

// Belongs to its queue once it has been handed over to it.
class QueueTimer {
  public:
    // Cancels.
    virtual ~QueueTimer() = default;

    // Calls `handler` once on the queue, not before `due`, and if the machine allows not later than `leeway`
    // (positive) after it: within it, timers that have the same leeway fall together into one wakeup.
    // Replaces what was armed before.
    virtual void arm(SteadyTime due, std::chrono::nanoseconds leeway, std::function<void()> handler) = 0;
    // What was armed won't be called any more.
    virtual void cancel() = 0;
};

class NetworkQueue {
  public:
    virtual ~NetworkQueue() = default;

    // Runs the item after those that were posted before, never two at once. Callable from any thread; the
    // other operations only on the queue, or before anything runs on it.
    virtual void post(std::function<void()> item) = 0;
    virtual SteadyTime now() const = 0;
    // Null when the system gives none.
    virtual std::unique_ptr<QueueTimer> makeTimer() = 0;
    // A new socket, or the error number.
    virtual tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket() = 0;
};

// When a timer of makeNetworkQueue() comes: the first multiple of `leeway`, counted from the clock's own
// beginning, that is not before `due`. The same grid for all, so that they wake the process together.
SteadyTime sharedWakeup(SteadyTime due, std::chrono::nanoseconds leeway);

// A queue on a strand of the pool. What is pending on it when the pool ends is dropped; the queue must not
// outlive the pool.
std::unique_ptr<NetworkQueue> makeNetworkQueue(WorkPool& pool);

}  // namespace telvora
