// SPDX-License-Identifier: Apache-2.0
//
// Transport of datagrams in virtual time; the last test uses real threads and a real socket.
#include <gmock/gmock.h>

#include <numeric>

#include "tests/support/udp_peer.h"
#include "tests/unit/dashboard/dashboard_rig.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kCleanUp[] = "<7>DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.";
constexpr char kLastResort[] =
    "<7>DashboardBackend(myPeriodicTask): scheduled last resort clean-up in 9500 ms.";

struct DashboardTransportTest : testing::Test, DashboardRig {
    std::shared_ptr<DashboardBackend> makeReliable(const PropertyList& period = 500) {
        return makeBackend(collectorProfile({{"reliable", period}}));
    }
    // When datagrams go out in the minute after a report, in milliseconds after it.
    std::vector<int64_t> sendTimes(DashboardBackend& backend) {
        std::vector<int64_t> times;
        network.onSend = [&, start = network.now()](std::string_view) {
            times.push_back((network.now() - start) / 1ms);
            return true;
        };
        send(backend, 1);
        network.runFor(1min);
        network.onSend = nullptr;
        return times;
    }
};

TEST_F(DashboardTransportTest, ResendsAtTicksThatKeepTheirPhaseWhileAPacketWaits) {
    // The period, how late each tick is, how long after the start the report is, and the times of datagrams.
    const std::tuple<PropertyList, std::chrono::nanoseconds, std::chrono::nanoseconds, std::vector<int64_t>>
        cases[] = {
            // Ticks 2, 5, 10 and 19 of those that fall on multiples of 500 ms; the first one is at 1500.
            {500, 0s, 1234ms, {0, 766, 2266, 4766, 9266}},
            {500, 1h, 0s, {0, 1100, 2600, 5100, 9600}},  // as late as they may be
            {10, 1h, 0s, {0, 25, 55, 105, 195}},  // which is less where they would catch up with each other
            {0, 0s, 0s, {0, 2, 5, 10, 19}},
            {-5, 0s, 0s, {0, 2, 5, 10, 19}},
            {true, 0s, 0s, {0, 2, 5, 10, 19}},
            {std::numeric_limits<int64_t>::max(), 0s, 0s, {0}}};
    for (const auto& [period, lateness, start, times] : cases) {
        const auto backend = makeReliable(period);
        network.lateness = lateness;
        network.runFor(start);
        EXPECT_EQ(network.armedTimers, 0u);
        EXPECT_EQ(sendTimes(*backend), times);
        EXPECT_EQ(network.armedTimers, times.size() == 1 ? 1u : 0u);
    }
}

TEST_F(DashboardTransportTest, ATickWalksOnBehindThePacketThatItDrops) {
    const auto backend = makeReliable();
    send(*backend, 1);
    network.runFor(500ms);
    send(*backend, 2);
    network.runFor(9499ms);
    takeSent();
    network.runFor(1ms);  // tick 20 of the first packet, 19 of the second
    EXPECT_THAT(takeSent(), ElementsAre(2));
    network.runFor(500ms);
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, UnreliableDeliveryKeepsOnlyUnsentPackets) {
    const auto backend = makeBackend(collectorProfile());
    send(*backend, 1);
    EXPECT_THAT(takeSent(), ElementsAre(1));
    EXPECT_EQ(network.armedTimers, 0u);

    // The collector is away: the network refuses all datagrams after the first.
    int refused = 0;
    network.onSend = [&refused](std::string_view) { return ++refused, false; };
    send(*backend, 2);
    send(*backend, 3);
    network.runFor(2s);
    EXPECT_EQ(refused, 2 + 4 * 2);
    network.onSend = nullptr;  // it comes back
    send(*backend, 4);
    network.runFor(500ms);
    EXPECT_THAT(takeSent(), ElementsAre(4, 2, 3));
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, ACollectorThatWasAwayGetsQueuedPackets) {
    const auto backend = makeReliable();
    const auto refuse = [](std::string_view) { return false; };
    network.onSend = refuse;
    send(*backend, 1);
    for (const char* refused : {"the report", "its resend, which then doesn't count"}) {
        network.onSend = refuse;
        network.runFor(1h);
        network.onSend = nullptr;
        network.runFor(500ms);
        EXPECT_THAT(takeSent(), ElementsAre(1)) << refused;
    }
    acknowledge(1);
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, AnAcknowledgementOfAnyLengthCountsForOnePacketOfItsNumber) {
    const auto backend = makeReliable();
    for (const size_t length : {0, 61, 62, 64, 1088, 65507}) {
        send(*backend, 0x01fe);
        acknowledge(0xfe01);
        EXPECT_EQ(network.armedTimers, 1u);
        acknowledge(0x01fe, length);
        EXPECT_EQ(network.armedTimers, length < 62 ? 1u : 0u) << length;
        acknowledge(0x01fe);
    }
    for (const char* which : {"first", "second"})
        send(*backend, 7, {{"which", which}});
    acknowledge(7);
    takeSent();
    network.runFor(1s);
    ASSERT_THAT(network.sent, SizeIs(1));
    EXPECT_EQ(network.sent[0].substr(64), " which=second");
    acknowledge(7);
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, AtMost50PacketsWait) {
    const auto backend = makeReliable();
    for (uint16_t number = 1; number <= 60; ++number)
        send(*backend, number);
    takeSent();
    network.runFor(1s);
    std::vector<int> youngest(50);
    std::iota(youngest.begin(), youngest.end(), 11);
    EXPECT_EQ(takeSent(), youngest);
}

TEST_F(DashboardTransportTest, CleanUpClosesOnceNothingWaitsOrTimeIsUp) {
    const std::tuple<uint16_t, uint16_t, std::chrono::milliseconds, std::vector<std::string>> cases[] = {
        {0, 0, 0ms, {}},
        {50, 50, 2200ms, {kLastResort, kCleanUp}},  // at the tick after the acknowledgements
        {50, 49, 200ms + 9500ms, {kLastResort}}};
    for (const auto& [queued, acknowledged, due, lines] : cases) {
        SCOPED_TRACE(acknowledged);
        log.clear();
        auto backend = makeReliable();
        network.runFor(1300ms);
        for (uint16_t number = 1; number <= queued; ++number)
            send(*backend, number);
        std::vector<std::chrono::nanoseconds> closed;
        backend->cleanup([&, start = network.now()] { closed.push_back(network.now() - start); });
        backend.reset();  // as when the session ends
        EXPECT_THAT(closed, IsEmpty());
        network.runFor(2s);
        for (uint16_t number = 1; number <= acknowledged; ++number)
            acknowledge(number);
        network.runFor(1min);
        EXPECT_THAT(closed, ElementsAre(due));
        EXPECT_EQ(network.openSockets, 0u);
        EXPECT_EQ(network.armedTimers, 0u);
        EXPECT_EQ(log.lines(), lines);
    }
}

TEST_F(DashboardTransportTest, AfterCleanUpReportsCauseNoWorkAndWithoutItABackendIsDrainedToo) {
    auto backend = makeReliable();
    send(*backend, 1);
    backend.reset();
    EXPECT_EQ(network.openSockets, 1u);
    acknowledge(1);
    EXPECT_EQ(network.openSockets, 0u);
    takeSent();

    backend = makeReliable();
    backend->cleanup();
    for (uint16_t number = 0; number < 100; ++number)
        send(*backend, number);
    backend->cleanup();
    network.runFor(1min);
    EXPECT_THAT(network.sent, IsEmpty());
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, ThePoolMayEndWhilePacketsWait) {
    WorkPool pool(2);
    services.makeNetworkQueue = [&pool] { return makeNetworkQueue(pool); };
    UdpPeer collector;
    auto backend =
        DashboardBackend::make(services, "dashboard", "127.0.0.1", collector.port(), shared(identityOf(7)));
    backend->sendMessage(std::nullopt, kNow, 1, 2, EventID{1});
    backend->cleanup();
    backend.reset();
    EXPECT_EQ(collector.receive().size(), 64u);
    pool.stop();
}

}  // namespace
}  // namespace telvora::test
