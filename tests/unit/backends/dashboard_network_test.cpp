// SPDX-License-Identifier: Apache-2.0
//
// The backend on real threads and a real socket.
#include <gtest/gtest.h>

#include <future>
#include <map>
#include <thread>

#include "backends/dashboard_backend.h"
#include "tests/support/udp_peer.h"
#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {
namespace {

TEST(DashboardNetworkTest, ReportsArriveFromManySessionsAtOnce) {
    constexpr int kSessions = 4;
    constexpr uint16_t kReports = 40;
    BackendRig rig;
    WorkPool pool(2);
    rig.services.makeNetworkQueue = [&pool] { return makeNetworkQueue(pool); };
    UdpPeer collector;
    const Dictionary profile{{"ip", "127.0.0.1"}, {"port", int{collector.port()}}, {"reliable", 20}};

    std::vector<std::thread> sessions;
    std::promise<void> closed[kSessions];
    for (int i = 0; i < kSessions; ++i) {
        sessions.emplace_back([&, i] {
            const auto backend = DashboardBackend::make(rig.services, "dashboard", profileOf(profile), {});
            backend->setSessionID(static_cast<uint32_t>(i));
            for (uint16_t number = 1; number <= kReports; ++number)
                backend->sendMessage(Dictionary{{"i", i}}, kNow, 1, 2, EventID{number});
            backend->cleanup([&closed, i] { closed[i].set_value(); });
        });
    }
    // Every report once or, where its acknowledgement was late, more often.
    std::map<std::string, int> arrivals;
    while (arrivals.size() < size_t{kSessions} * kReports) {
        const std::string datagram = collector.receive();
        ++arrivals[datagram];
        collector.answer(datagram.substr(0, 64));
    }
    for (std::thread& session : sessions)
        session.join();
    for (std::promise<void>& promise : closed)
        promise.get_future().wait();
}

TEST(DashboardNetworkTest, ThePoolMayEndWhilePacketsWait) {
    BackendRig rig;
    WorkPool pool(2);
    rig.services.makeNetworkQueue = [&pool] { return makeNetworkQueue(pool); };
    UdpPeer collector;
    auto backend =
        DashboardBackend::make(rig.services, "dashboard", "127.0.0.1", collector.port(), std::nullopt);
    backend->sendMessage(std::nullopt, kNow, 1, 2, EventID{1});
    backend->cleanup();
    backend.reset();
    EXPECT_EQ(collector.receive().size(), 64u);
    pool.stop();
}

}  // namespace
}  // namespace telvora::test
