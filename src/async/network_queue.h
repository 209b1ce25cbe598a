// SPDX-License-Identifier: Apache-2.0
//
// A serial work queue with the services that a datagram protocol needs: a clock, timers and sockets. The
// interface lets a protocol run on the work pool and the network, or in virtual time without either.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <tl/expected.hpp>

#include "async/udp_socket.h"
#include "async/work_pool.h"

namespace telvora {

using SteadyTime = std::chrono::steady_clock::time_point;

// Belongs to its queue once it has been handed to it.
class QueueTimer {
  public:
    // Cancels.
    virtual ~QueueTimer() = default;

    // Calls `handler` once on the queue, not before `due` and, if the machine allows, not later than `leeway`
    // (positive) after it. Within the leeway, timers of the same leeway expire together in one wakeup.
    // Replaces an earlier arm().
    virtual void arm(SteadyTime due, std::chrono::nanoseconds leeway, std::function<void()> handler) = 0;
    // Cancels the timer: its handler isn't called any more.
    virtual void cancel() = 0;
};

class NetworkQueue {
  public:
    virtual ~NetworkQueue() = default;

    // Runs the item after those that were posted before, one at a time. Callable from any thread; the other
    // operations are called on the queue, or before it runs an item.
    virtual void post(std::function<void()> item) = 0;
    virtual SteadyTime now() const = 0;
    // A new timer; null if the system has no resources for it.
    virtual std::unique_ptr<QueueTimer> makeTimer() = 0;
    // A new socket, or the error number.
    virtual tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket() = 0;
};

// The expiry of a timer of makeNetworkQueue(): the first multiple of `leeway` on the clock that is not before
// `due`. All timers share this grid, so that they wake the process together.
SteadyTime sharedWakeup(SteadyTime due, std::chrono::nanoseconds leeway);

// A queue on a strand of the pool. It must not outlive the pool, which drops pending items when it ends.
std::unique_ptr<NetworkQueue> makeNetworkQueue(WorkPool& pool);

}  // namespace telvora
