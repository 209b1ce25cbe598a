// SPDX-License-Identifier: Apache-2.0
//
// UDPPacketQueue: datagrams that may have to be sent again: those that the network has not accepted and, with
// reliable delivery, those that the collector has not acknowledged. The owner's timer provides the ticks; the
// queue uses neither a clock nor a socket.
//
//     state      in each tick
//     unsent     the datagram is sent; after a success, it waits for its acknowledgement or, without reliable
//                delivery, is removed
//     sent       2, 3, 5 and 9 ticks after the last time, it is sent again; the next tick removes it
//
// A datagram without an acknowledgement is thus sent again in ticks 2, 5, 10 and 19 and removed in tick 20. A
// resend that fails does not count and is repeated in each tick. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace telvora {

// A datagram in the queue.
struct UDPPacketToSend {
    enum class State : int32_t { unsent = 0, sent = 1 };

    UDPPacketToSend(std::string_view bytes, uint16_t eventNum) : eventNumber(eventNum), data(bytes) {}

    State state = State::unsent;
    int32_t numberOfChecks = 0;       // ticks since it was last sent
    int32_t numberOfRetransmits = 0;  // done so far, 0 to 4
    uint16_t eventNumber;             // the key of its acknowledgement
    std::string data;
};

class UDPPacketQueue {
  public:
    static constexpr size_t kMaxPackets = 50;

    // Sends a datagram. Returns whether the network accepted it as a whole.
    using Send = std::function<bool(std::string_view datagram)>;

    // Adds the packet at the end. Removes the oldest one if there are more than kMaxPackets.
    void append(UDPPacketToSend packet);
    // Removes the oldest packet with that event number. Returns whether there was one.
    bool acknowledge(uint16_t eventNumber);
    // Performs one tick. `reliable`: whether packets that were sent wait for an acknowledgement.
    void tick(bool reliable, const Send& send);

    bool empty() const { return packets_.empty(); }

  private:
    std::vector<UDPPacketToSend> packets_;  // oldest first
};

}  // namespace telvora
