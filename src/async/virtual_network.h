// SPDX-License-Identifier: Apache-2.0
//
// VirtualNetwork: queues, timers and datagram sockets in virtual time, without threads and without a network.
// All events run in runFor(), which advances the clock from event to event. Must outlive its queues. Not
// thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "async/network_queue.h"

namespace telvora {

class VirtualSocket;

class VirtualNetwork {
  public:
    VirtualNetwork() = default;
    ~VirtualNetwork();
    VirtualNetwork(const VirtualNetwork&) = delete;
    VirtualNetwork& operator=(const VirtualNetwork&) = delete;

    std::unique_ptr<NetworkQueue> makeQueue();

    SteadyTime now() const { return now_; }
    void after(std::chrono::nanoseconds delay, std::function<void()> event);
    // Runs all events that are due until then; with a duration of zero, those due now.
    void runFor(std::chrono::nanoseconds duration = {});
    // Delivers a datagram from the peer to every socket that waits for one.
    void deliver(const std::string& datagram);

    // Whether the network takes a sent datagram; by default it takes each and adds it to `sent`.
    std::function<bool(std::string_view)> onSend;
    // Failures from now on: an error number, or 0.
    int socketError = 0;
    int bindError = 0;
    int connectError = 0;
    bool readSourceFails = false;
    bool timerFails = false;
    // Delay of timers after they are due, at most their leeway.
    std::chrono::nanoseconds lateness{};

    std::vector<std::string> sent;                        // without onSend
    std::vector<std::pair<std::string, uint16_t>> peers;  // as sockets were connected
    size_t armedTimers = 0;
    size_t timerCalls = 0;
    size_t openSockets = 0;

  private:
    friend class VirtualTimer;
    friend class VirtualSocket;
    using EventKey = std::pair<SteadyTime, uint64_t>;  // the number orders events of the same time

    EventKey add(SteadyTime due, std::function<void()> event);

    SteadyTime now_ = SteadyTime(std::chrono::seconds(1000));
    uint64_t eventCount_ = 0;
    std::map<EventKey, std::function<void()>> events_;
    std::vector<VirtualSocket*> sockets_;
};

}  // namespace telvora
