// SPDX-License-Identifier: Apache-2.0
//
// What waits to be sent again: datagrams that the network has not taken yet, and, where delivery is reliable,
// those that the collector has not acknowledged. Time is counted in ticks of the owner's timer; nothing here
// reads a clock or touches a socket.
//
//     state      each tick
//     unsent     the datagram is sent; once that succeeds it awaits its acknowledgement, or is done where
//                none is wanted
//     sent       after 2, 3, 5 and 9 ticks, counted from the last time, it is sent once more; the tick after
//                that drops it
//
// so that a datagram that nobody acknowledges is sent again in ticks 2, 5, 10 and 19 and dropped in tick 20.
// A resend that fails doesn't count and is tried again in each tick. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace telvora {

// One queued datagram.
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

    // Sends a datagram; whether the whole of it went out.
    using Send = std::function<bool(std::string_view datagram)>;

    // Adds the packet at the end; drops the oldest one if there are then more than kMaxPackets.
    void append(UDPPacketToSend packet);
    // Removes the oldest packet of that event number, and no other; whether there was one.
    bool acknowledge(uint16_t eventNumber);
    // One tick. `reliable`: whether what is sent awaits an acknowledgement.
    void tick(bool reliable, const Send& send);

    bool empty() const { return packets_.empty(); }
    size_t size() const { return packets_.size(); }
    const std::vector<UDPPacketToSend>& packets() const { return packets_; }

  private:
    std::vector<UDPPacketToSend> packets_;  // oldest first
};

}  // namespace telvora
