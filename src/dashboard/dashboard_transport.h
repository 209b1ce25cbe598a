// SPDX-License-Identifier: Apache-2.0
//
// DashboardTransport: the network side of a dashboard backend: one socket, the queue of waiting packets, and
// the timer of their retransmission.
//
// After start(), all work runs on the transport's own serial queue, without locks. The timer's ticks are the
// multiples of its period since start(). It is armed only while a packet waits or a clean-up runs, as other
// ticks would have no effect: an idle transport causes no wake-ups. The armed timer keeps the transport
// alive; the wait for acknowledgements does not.
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
    // Makes a transport with a socket. Null, with a line at level 3, if the system refuses the socket.
    static std::shared_ptr<DashboardTransport> make(std::unique_ptr<NetworkQueue> queue);

    // The next three operations complete the construction, in this order, on the thread that made the
    // transport. connect() and start() return false, with a line at level 3, if they fail; the transport
    // can't be used then.

    // Turns reliable delivery on. It stays off, with a line at level 3, if the socket can't be bound.
    void useReliableUDP();
    bool connect(const std::string& serverIP, uint16_t serverPort);
    // Starts the ticks. `period` is at least 1 ms. The operations below may be called afterwards.
    bool start(std::chrono::milliseconds period);

    // Constant from start() on.
    bool reliableUDP() const { return reliableUDP_; }

    // Sends a datagram and keeps it as long as it may have to be sent again. Callable from any thread.
    void send(std::string datagram, uint16_t eventNumber);
    // Closes the socket at once if no packet waits, else when the last one is done, at the latest 9.5 seconds
    // after the next tick. Then calls `whenClosed` (may be empty) on the queue. Callable from any thread.
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
    SteadyTime phase_;                        // of the ticks: the time of start()
    std::chrono::nanoseconds period_{};
    bool timerArmed_ = false;
    CleanupState cleanupState_ = CleanupState::running;
    std::function<void()> whenClosed_;
    UDPPacketQueue messageQueue_;
};

}  // namespace telvora
