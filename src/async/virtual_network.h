// SPDX-License-Identifier: Apache-2.0
//
// VirtualNetwork: queues, timers and datagram sockets in virtual time, without threads and without a network.
// Nothing happens but in runFor(), which jumps from event to event. Must outlive its queues.
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
    // Runs all that is due from now until then; what is due at once with a duration of zero.
    void runFor(std::chrono::nanoseconds duration = {});
    // Hands a datagram from the peer to every socket that waits for some.
    void deliver(const std::string& datagram);

    // Decides whether the network takes a datagram that is sent; by default it takes and keeps each.
    std::function<bool(std::string_view)> onSend;
    // What fails from now on; an error number, or 0.
    int socketError = 0;
    int bindError = 0;
    int connectError = 0;
    bool readSourceFails = false;
    bool timerFails = false;
    // How much later than due timers come, up to their leeway.
    std::chrono::nanoseconds lateness{};

    std::vector<std::string> sent;                        // without onSend
    std::vector<std::pair<std::string, uint16_t>> peers;  // as sockets were connected
    size_t armedTimers = 0;
    size_t timerCalls = 0;
    size_t openSockets = 0;

  private:
    friend class VirtualTimer;
    friend class VirtualSocket;
    using EventKey = std::pair<SteadyTime, uint64_t>;  // those of one time in the order of their making

    EventKey add(SteadyTime due, std::function<void()> event);

    SteadyTime now_ = SteadyTime(std::chrono::seconds(1000));
    uint64_t eventCount_ = 0;
    std::map<EventKey, std::function<void()>> events_;
    std::vector<VirtualSocket*> sockets_;
};

}  // namespace telvora
