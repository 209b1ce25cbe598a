// SPDX-License-Identifier: Apache-2.0
#include "dashboard/udp_packet_queue.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace telvora {

namespace {

// Ticks to wait for an acknowledgement, by the number of retransmissions so far.
constexpr std::array<int32_t, 4> kThresholds = {2, 3, 5, 9};

using State = UDPPacketToSend::State;

// Returns whether the packet is to be removed.
bool tickUnsent(UDPPacketToSend& packet, bool reliable, const UDPPacketQueue::Send& send) {
    if (!send(packet.data)) return false;
    if (!reliable) return true;
    packet.state = State::sent;
    return false;
}

bool tickSent(UDPPacketToSend& packet, const UDPPacketQueue::Send& send) {
    const auto retransmits = static_cast<size_t>(packet.numberOfRetransmits);
    if (retransmits >= kThresholds.size()) return true;
    const int32_t checks = packet.numberOfChecks + 1;
    if (checks < kThresholds[retransmits]) {
        packet.numberOfChecks = checks;
    } else if (send(packet.data)) {
        packet.numberOfChecks = 0;
        ++packet.numberOfRetransmits;
    }
    return false;
}

}  // namespace

void UDPPacketQueue::append(UDPPacketToSend packet) {
    packets_.push_back(std::move(packet));
    if (packets_.size() > kMaxPackets) packets_.erase(packets_.begin());
}

bool UDPPacketQueue::acknowledge(uint16_t eventNumber) {
    const auto packet =
        std::find_if(packets_.begin(), packets_.end(),
                     [eventNumber](const UDPPacketToSend& p) { return p.eventNumber == eventNumber; });
    if (packet == packets_.end()) return false;
    packets_.erase(packet);
    return true;
}

void UDPPacketQueue::tick(bool reliable, const Send& send) {
    for (auto packet = packets_.begin(); packet != packets_.end();) {
        const bool done =
            packet->state == State::unsent ? tickUnsent(*packet, reliable, send) : tickSent(*packet, send);
        packet = done ? packets_.erase(packet) : std::next(packet);
    }
}

}  // namespace telvora
