// SPDX-License-Identifier: Apache-2.0
//
// Acknowledgements of the dashboard's collector, in virtual time: the reports that are sent again are those
// that a plain model still waits for, and the transport comes to rest.
#include <deque>
#include <string>

#include "async/virtual_network.h"
#include "dashboard/dashboard_datagram.h"
#include "dashboard/dashboard_transport.h"
#include "fuzz/target.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

namespace {

constexpr std::chrono::milliseconds kPeriod{500};

std::string reportOf(uint16_t number) {
    std::string datagram(kDashboardHeaderBytes, 'x');
    datagram[kDashboardEventNumberOffset] = static_cast<char>(number >> 8);
    datagram[kDashboardEventNumberOffset + 1] = static_cast<char>(number);
    return datagram;
}

void acknowledge(std::deque<std::string>& waiting, std::string_view datagram) {
    constexpr size_t kEnd = kDashboardEventNumberOffset + 2;
    if (datagram.size() < kEnd) return;
    const auto numberOf = [](std::string_view report) {
        return report.substr(kDashboardEventNumberOffset, 2);
    };
    const auto report = std::find_if(waiting.begin(), waiting.end(), [&](const std::string& sent) {
        return numberOf(sent) == numberOf(datagram);
    });
    if (report != waiting.end()) waiting.erase(report);
}

}  // namespace

void tryInput(std::string_view bytes) {
    VirtualNetwork network;
    const auto transport = DashboardTransport::make(network.makeQueue());
    transport->useReliableUDP();
    require(transport->connect("192.0.2.1", 5000) && transport->start(kPeriod), "the transport starts");
    network.runFor();

    std::deque<std::string> waiting;
    for (Input input(bytes); !input.empty();) {
        const uint8_t length = input.byte();
        if (length < 32) {  // a report; any other length: a datagram from the collector
            const auto number = static_cast<uint16_t>(length << 4 | input.byte() % 16);
            waiting.push_back(reportOf(number));
            transport->send(waiting.back(), number);
            if (waiting.size() > UDPPacketQueue::kMaxPackets) waiting.pop_front();
        } else {
            const std::string datagram(input.take(length));
            network.deliver(datagram);
            acknowledge(waiting, datagram);
        }
        network.runFor();
    }
    network.sent.clear();
    network.runFor(2 * kPeriod + std::chrono::milliseconds(200));
    require(std::equal(network.sent.begin(), network.sent.end(), waiting.begin(), waiting.end()),
            "an unacknowledged report is sent again");
    network.runFor(30 * kPeriod);
    require(network.sent.size() == 4 * waiting.size(), "a report is sent again four times at most");
    require(network.armedTimers == 0, "an idle transport has no timer");
    transport->cleanup();
    network.runFor();
    require(network.openSockets == 0, "a closed transport has no socket");
}

}  // namespace telvora::fuzz
