// SPDX-License-Identifier: Apache-2.0
//
// DashboardTransport: the network side of a dashboard backend: one socket, the packets that wait, and the
// timer that sends them again.
//
// Everything happens on the transport's own serial queue, so nothing is locked; construction ends before
// anything is posted there. The timer's ticks fall on the multiples of its period since start(), but it is
// armed only while a packet waits or a clean-up runs: a tick that finds neither would change nothing, so
// those that are left out are not missed, and a transport with nothing to send wakes nobody. While the timer
// is armed it keeps the transport alive; the wait for acknowledgements does not.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "async/network_queue.h"
#include "dashboard/udp_packet_queue.h"

namespace telvora {

class DashboardTransport : public std::enable_shared_from_this<DashboardTransport> {
  public:
    // A transport with a socket, or null, with a line at level 3.
    static std::shared_ptr<DashboardTransport> make(std::unique_ptr<NetworkQueue> queue);

    // Construction goes on with these, in this order, on the thread that made the transport. The two that
    // return a bool log at level 3 why they fail; the transport is then of no use.

    // Turns reliable delivery on; where the socket can't be bound, it stays off, with a line at level 3.
    void useReliableUDP();
    bool connect(const std::string& serverIP, uint16_t serverPort);
    // From here on the operations below may be called. The period is at least a millisecond.
    bool start(std::chrono::milliseconds period);

    // Constant from start() on.
    bool reliableUDP() const { return reliableUDP_; }

    // Sends a datagram, and keeps it while it has to be sent again. Callable from any thread.
    void send(std::string datagram, uint16_t eventNumber);
    // Closes the socket once nothing waits any more, at the latest 9.5 seconds after the next tick; at once
    // if nothing waits. `whenClosed` (may be empty) runs on the queue after that. Callable from any thread.
    void cleanup(std::function<void()> whenClosed = {});

  private:
    enum class CleanupState : int32_t { running = 0, requested = 1, lastResortScheduled = 2 };

    DashboardTransport(std::unique_ptr<NetworkQueue> queue, std::unique_ptr<UdpSocket> socket)
        : queue_(std::move(queue)), socket_(std::move(socket)) {}

    void tryToSendMsg(std::string_view datagram, uint16_t eventNumber);
    void waitForAcknowledgement();
    void processSocketRead();
    void myPeriodicTask();
    void updateTimer();
    void cleanupSources();

    const std::unique_ptr<NetworkQueue> queue_;
    const std::unique_ptr<UdpSocket> socket_;
    bool reliableUDP_ = false;
    bool hasReadSource_ = false;
    std::unique_ptr<QueueTimer> timer_;       // null once cleaned up
    std::unique_ptr<QueueTimer> lastResort_;  // likewise
    SteadyTime phase_;                        // when the ticks began to count
    std::chrono::nanoseconds period_{};
    bool timerArmed_ = false;
    CleanupState cleanupState_ = CleanupState::running;
    std::function<void()> whenClosed_;
    UDPPacketQueue messageQueue_;
};

}  // namespace telvora
