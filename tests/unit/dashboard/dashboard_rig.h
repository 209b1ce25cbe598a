// SPDX-License-Identifier: Apache-2.0
//
// A DashboardBackend on the rig's device, in virtual time.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "dashboard/dashboard_backend.h"
#include "tests/support/backend_rig.h"

namespace telvora::test {

using namespace std::chrono_literals;

struct DashboardRig : BackendRig {
    static Dictionary collectorProfile(const Dictionary& changes = {}) {
        return Dictionary::merged({{"ip", "192.0.2.1"}, {"port", 5000}}, Dictionary(changes));
    }

    std::shared_ptr<DashboardBackend> makeBackend(const Dictionary& profile,
                                                  BackendIdentity as = identityOf(7)) {
        return DashboardBackend::make(services, "dashboard", profileOf(profile), shared(std::move(as)));
    }

    // Sends a report of that number and runs all tasks that are due.
    void send(DashboardBackend& backend, uint16_t number, const Dictionary& payload = {}) {
        backend.sendMessage(payload, kNow, 4, 9, EventID{number});
        network.runFor();
    }

    // Makes the collector acknowledge the report of that number, truncated or padded to a length.
    void acknowledge(uint16_t number, size_t length = 64) {
        std::string datagram(std::max<size_t>(length, 62), '\0');
        datagram[60] = static_cast<char>(number >> 8);
        datagram[61] = static_cast<char>(number);
        network.deliver(datagram.substr(0, length));
        network.runFor();
    }

    // The event numbers of the datagrams sent since the last call.
    std::vector<int> takeSent() {
        std::vector<int> numbers;
        for (const std::string& datagram : std::exchange(network.sent, {}))
            numbers.push_back(static_cast<uint8_t>(datagram[60]) << 8 | static_cast<uint8_t>(datagram[61]));
        return numbers;
    }

    LogCapture log;
};

}  // namespace telvora::test
