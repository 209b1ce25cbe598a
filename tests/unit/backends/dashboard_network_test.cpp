// SPDX-License-Identifier: Apache-2.0
//
// The backend on real threads and a real socket.
#include <gtest/gtest.h>

#include "backends/dashboard_backend.h"
#include "tests/support/udp_peer.h"
#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {
namespace {

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
