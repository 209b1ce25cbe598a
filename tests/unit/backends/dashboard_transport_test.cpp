// SPDX-License-Identifier: Apache-2.0
//
// What happens to datagrams on their way, in virtual time.
#include <gmock/gmock.h>

#include "tests/unit/backends/dashboard_rig.h"

namespace telvora::test {
namespace {

using lab::VirtualNetwork;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kCleanUp[] = "<7>DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.";
constexpr char kLastResort[] =
    "<7>DashboardBackend(myPeriodicTask): scheduled last resort clean-up in 9500 ms.";

struct DashboardTransportTest : testing::Test, DashboardRig {
    std::shared_ptr<DashboardBackend> makeReliable(int64_t period = 500) {
        return makeBackend(collectorProfile({{"reliable", period}}));
    }
};

// Records when datagrams go out.
struct SendTimes {
    explicit SendTimes(VirtualNetwork& virtualNetwork) : network(virtualNetwork), start(network.now()) {
        network.onSend = [this](std::string_view) {
            at.push_back((network.now() - start) / 1ms);
            return true;
        };
    }
    ~SendTimes() { network.onSend = nullptr; }
    SendTimes(const SendTimes&) = delete;
    SendTimes& operator=(const SendTimes&) = delete;

    VirtualNetwork& network;
    SteadyTime start;
    std::vector<int64_t> at;  // in milliseconds
};

TEST_F(DashboardTransportTest, TheTimerKeepsItsPhaseAndRunsOnlyWhileAPacketWaits) {
    SendTimes times(network);
    const auto backend = makeReliable();
    network.runFor(1234ms);
    EXPECT_EQ(network.armedTimers, 0u);
    send(*backend, 1);
    EXPECT_EQ(network.armedTimers, 1u);
    network.runFor(1min);
    // Ticks 2, 5, 10 and 19 of those that fall on multiples of 500 ms; the first one is at 1500.
    EXPECT_THAT(times.at, ElementsAre(1234, 2000, 3500, 6000, 10500));
    EXPECT_EQ(network.timerCalls, 20u);
    EXPECT_EQ(network.armedTimers, 0u);

    send(*backend, 2);
    acknowledge(2);
    EXPECT_EQ(network.armedTimers, 0u);
    network.runFor(1min);
    EXPECT_EQ(network.timerCalls, 20u);
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

TEST_F(DashboardTransportTest, LateTicksKeepThePhaseToo) {
    SendTimes times(network);
    network.lateness = 1h;  // as late as they may
    const auto backend = makeReliable();
    send(*backend, 1);
    network.runFor(1min);
    EXPECT_THAT(times.at, ElementsAre(0, 1100, 2600, 5100, 9600));
    // A short period shortens how late a tick may come, so that none is left out.
    times.at.clear();
    times.start = network.now();
    const auto quick = makeReliable(10);
    send(*quick, 1);
    network.runFor(1min);
    EXPECT_THAT(times.at, ElementsAre(0, 25, 55, 105, 195));
}

TEST_F(DashboardTransportTest, ThePeriodHasALowerBound) {
    for (const PropertyList& value :
         {PropertyList(0), PropertyList(-5), PropertyList(true), PropertyList(1)}) {
        SendTimes times(network);
        send(*makeBackend(collectorProfile({{"reliable", value}})), 1);
        network.runFor(1min);
        EXPECT_THAT(times.at, ElementsAre(0, 2, 5, 10, 19));
    }
    const auto slow = makeReliable(std::numeric_limits<int64_t>::max());
    send(*slow, 1);
    network.runFor(1h);
    EXPECT_EQ(network.armedTimers, 1u);
}

TEST_F(DashboardTransportTest, UnreliableDeliveryKeepsOnlyWhatWasNotTaken) {
    const auto backend = makeBackend(collectorProfile());
    send(*backend, 1);
    EXPECT_THAT(takeSent(), ElementsAre(1));
    EXPECT_EQ(network.armedTimers, 0u);

    // The collector is away: the network refuses what comes after the first datagram.
    int refused = 0;
    network.onSend = [&refused](std::string_view) { return ++refused, false; };
    send(*backend, 2);
    send(*backend, 3);
    network.runFor(2s);
    EXPECT_EQ(refused, 2 + 4 * 2);
    // It comes back.
    network.onSend = nullptr;
    send(*backend, 4);
    EXPECT_THAT(takeSent(), ElementsAre(4));
    network.runFor(500ms);
    EXPECT_THAT(takeSent(), ElementsAre(2, 3));
    EXPECT_EQ(network.armedTimers, 0u);
    // Nobody reads this socket.
    acknowledge(2);
}

TEST_F(DashboardTransportTest, ACollectorThatWasAwayGetsReliablyWhatWasQueued) {
    const auto backend = makeReliable();
    bool up = false;
    network.onSend = [&](std::string_view datagram) {
        if (up) network.sent.emplace_back(datagram);
        return up;
    };
    send(*backend, 1);
    network.runFor(1h);
    up = true;
    network.runFor(500ms);
    EXPECT_THAT(takeSent(), ElementsAre(1));
    up = false;
    network.runFor(1h);  // its resend, refused each time, doesn't count
    up = true;
    network.runFor(500ms);
    EXPECT_THAT(takeSent(), ElementsAre(1));
    acknowledge(1);
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, AcknowledgementsOfEveryLength) {
    const auto backend = makeReliable();
    send(*backend, 0x0102);
    for (size_t length = 0; length < 62; ++length)
        acknowledge(0x0102, length);
    EXPECT_EQ(network.armedTimers, 1u);
    acknowledge(0x0201);
    EXPECT_EQ(network.armedTimers, 1u);
    acknowledge(0x0102, 62);
    EXPECT_EQ(network.armedTimers, 0u);
    for (const size_t length : {62, 64, 1088, 65507}) {
        send(*backend, 0xfffe);
        EXPECT_EQ(network.armedTimers, 1u);
        acknowledge(0xfffe, length);
        EXPECT_EQ(network.armedTimers, 0u) << length;
    }
}

TEST_F(DashboardTransportTest, TwoPacketsOfOneNumberTakeTwoAcknowledgements) {
    const auto backend = makeReliable();
    send(*backend, 7, {{"which", "first"}});
    send(*backend, 7, {{"which", "second"}});
    acknowledge(7);
    takeSent();
    network.runFor(1s);
    ASSERT_THAT(network.sent, SizeIs(1));
    EXPECT_EQ(network.sent[0].substr(64), " which=second");
    acknowledge(7);
    acknowledge(7);  // a duplicate
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardTransportTest, AtMost50PacketsWait) {
    const auto backend = makeReliable();
    for (uint16_t number = 1; number <= 60; ++number)
        send(*backend, number);
    takeSent();
    network.runFor(1s);
    const std::vector<int> resent = takeSent();
    ASSERT_THAT(resent, SizeIs(50));
    EXPECT_EQ(resent.front(), 11);
    EXPECT_EQ(resent.back(), 60);
}

TEST_F(DashboardTransportTest, CleanUpOfAnEmptyQueueClosesAtOnce) {
    for (const bool reliable : {false, true}) {
        auto backend = reliable ? makeReliable() : makeBackend(collectorProfile());
        EXPECT_EQ(network.openSockets, 1u);
        int closed = 0;
        backend->cleanup([&closed] { ++closed; });
        EXPECT_EQ(network.openSockets, 1u);  // the queue's business
        network.runFor();
        EXPECT_EQ(network.openSockets, 0u);
        EXPECT_EQ(closed, 1);
        EXPECT_THAT(log.lines(), IsEmpty());
        // Whatever comes now costs nothing.
        backend->cleanup();
        for (uint16_t number = 0; number < 100; ++number)
            send(*backend, number);
        backend->cleanup();
        network.runFor(1min);
        EXPECT_THAT(network.sent, IsEmpty());
        EXPECT_EQ(network.timerCalls, 0u);
    }
}

TEST_F(DashboardTransportTest, CleanUpWaitsForWhatIsQueuedAndEndsAtTheNextTick) {
    for (const uint16_t queued : {1, 50}) {
        log.clear();
        auto backend = makeReliable();
        network.runFor(1300ms);
        for (uint16_t number = 1; number <= queued; ++number)
            send(*backend, number);
        backend->cleanup();
        backend.reset();  // the session's last word
        // The collector acknowledges late, one by one.
        network.runFor(2s);
        for (uint16_t number = 1; number <= queued; ++number)
            acknowledge(number);
        EXPECT_EQ(network.openSockets, 1u);
        network.runFor(199ms);
        EXPECT_EQ(network.openSockets, 1u);
        network.runFor(1ms);
        EXPECT_EQ(network.openSockets, 0u);
        EXPECT_EQ(network.armedTimers, 0u);
        EXPECT_THAT(log.lines(), ElementsAre(kLastResort, kCleanUp));
    }
}

TEST_F(DashboardTransportTest, TheLastResortClosesWithPacketsQueued) {
    auto backend = makeReliable(2000);
    for (uint16_t number = 1; number <= 50; ++number)
        send(*backend, number);
    bool closed = false;
    backend->cleanup([&closed] { closed = true; });
    backend.reset();
    network.runFor(2000ms + 9499ms);
    EXPECT_FALSE(closed);
    EXPECT_EQ(network.openSockets, 1u);
    network.runFor(1ms);
    EXPECT_TRUE(closed);
    EXPECT_EQ(network.openSockets, 0u);
    EXPECT_EQ(network.armedTimers, 0u);
    EXPECT_THAT(log.lines(), ElementsAre(kLastResort));
}

TEST_F(DashboardTransportTest, ABackendThatGoesWithoutCleanUpIsDrainedToo) {
    auto backend = makeReliable();
    backend.reset();
    network.runFor();
    EXPECT_EQ(network.openSockets, 0u);

    backend = makeReliable();
    send(*backend, 1);
    backend.reset();
    EXPECT_EQ(network.openSockets, 1u);
    acknowledge(1);
    EXPECT_EQ(network.openSockets, 0u);
}

}  // namespace
}  // namespace telvora::test
