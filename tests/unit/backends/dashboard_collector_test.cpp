// SPDX-License-Identifier: Apache-2.0
//
// The laboratory's collector, which knows the datagram from docs/formats.md alone, against what the backend
// makes; and whether the faults that it can be asked for happen.
#include "telvora-lab/dashboard_collector.h"

#include <gmock/gmock.h>

#include <future>
#include <random>

#include "backends/dashboard_datagram.h"
#include "platform/network_queue.h"

namespace telvora::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Pair;

std::string datagramOf(uint16_t number, const Dictionary& payload = {}, DashboardFields fields = {}) {
    fields.eventNumber = number;
    DashboardDatagram datagram;
    fillDashboardDatagram(datagram, fields, payload);
    return std::string(datagram.bytes());
}

TEST(DashboardCollectorTest, DecodesWhateverTheBackendSends) {
    std::mt19937 random(1);
    const auto below = [&random](uint32_t bound) { return static_cast<uint32_t>(random()) % bound; };
    const char* const pieces[] = {"\\", "=", "a", " b", "\xc3\xa4", "\r", "\t", "value", "\\=", "/"};
    for (int round = 0; round < 2000; ++round) {
        DashboardFields fields;
        fields.version = static_cast<uint8_t>(random());
        fields.componentType = static_cast<uint8_t>(random());
        fields.timestamp = {static_cast<int32_t>(below(INT32_MAX)), static_cast<int32_t>(below(1000000))};
        fields.sessionID = static_cast<uint32_t>(random());
        fields.clientVersion = static_cast<uint16_t>(random());
        fields.method = static_cast<uint16_t>(random());
        fields.respCode = static_cast<uint16_t>(random());
        fields.reliable = below(2) != 0;
        fields.fromProfile = below(2) != 0;
        const std::string device(below(41), 'd');
        device.copy(fields.deviceID.data(), device.size());
        Dictionary payload;
        for (uint32_t i = below(6); i > 0; --i) {
            std::string value;
            for (uint32_t j = below(9); j > 0; --j)
                value += pieces[below(std::size(pieces))];
            payload.set("key" + std::to_string(i), value.empty() ? "empty" : value);
        }
        const auto number = static_cast<uint16_t>(random());
        const auto report = lab::decodeDashboardDatagram(datagramOf(number, payload, fields));
        ASSERT_TRUE(report) << report.error();
        EXPECT_EQ(report->version, fields.version);
        EXPECT_EQ(report->componentType, fields.componentType);
        EXPECT_NEAR(report->time, TelvoradUtil::secondsFromTimeValue(fields.timestamp), 0.004);
        EXPECT_EQ(report->session, fields.sessionID);
        EXPECT_EQ(report->clientVersion, fields.clientVersion);
        EXPECT_EQ(report->method, fields.method);
        EXPECT_EQ(report->responseCode, fields.respCode);
        EXPECT_EQ(report->device, device);
        EXPECT_EQ(report->eventNumber, number);
        EXPECT_EQ(report->wantsAcknowledgement, fields.reliable);
        EXPECT_EQ(report->configuredByBag, fields.fromProfile);
        Dictionary pairs;
        for (const auto& [key, value] : lab::dashboardPairs(report->text))
            pairs.set(key, value);
        EXPECT_EQ(pairs, payload);
    }
}

TEST(DashboardCollectorTest, RefusesWhatIsNoDatagram) {
    const auto changed = [](size_t offset, char byte) {
        std::string datagram = datagramOf(1, {{"k", "v"}});
        datagram[offset] = byte;
        return datagram;
    };
    const std::string whole = datagramOf(1, {{"k", std::string(2000, 'v')}});
    EXPECT_TRUE(lab::decodeDashboardDatagram(whole));
    const std::string cases[] = {"",
                                 whole.substr(0, 63),
                                 whole.substr(0, 1086),
                                 whole + "v",
                                 changed(2, 2),
                                 changed(3, static_cast<char>(250)),
                                 changed(15, 0),
                                 changed(21, 'd'),
                                 changed(63, 4),
                                 changed(64, 'k'),
                                 changed(65, '\0')};
    for (const std::string& datagram : cases)
        EXPECT_FALSE(lab::decodeDashboardDatagram(datagram)) << datagram.size();
}

TEST(DashboardCollectorTest, CountsReportsBeyondTheLastNumber) {
    lab::DashboardTally tally;
    for (const int number : {65534, 65535, 0, 2, 65535, 3})
        tally.count(*lab::decodeDashboardDatagram(datagramOf(static_cast<uint16_t>(number))));
    EXPECT_EQ(tally.arrived(), 6u);
    EXPECT_EQ(tally.distinct(), 5u);
    EXPECT_EQ(tally.deliveryRatio(), 5.0 / 6);  // 1 is missing
    EXPECT_THAT(tally.timesArrived(), ElementsAre(Pair(1, 4), Pair(2, 1)));
}

TEST(DashboardCollectorTest, ItsSeedDecidesWhatTheLinkDoes) {
    const lab::LinkFaults faults{
        .loss = 0.3, .duplicate = 0.2, .reorder = 0.1, .minDelay = 5ms, .maxDelay = 9ms};
    lab::FaultyLink link(faults, 7), same(faults, 7), other(faults, 8);
    constexpr int kDatagrams = 10000;
    int lost = 0, twice = 0, heldBack = 0, copies = 0, different = 0;
    for (int i = 0; i < kDatagrams; ++i) {
        const auto fate = link.transit();
        EXPECT_EQ(fate, same.transit());
        different += fate != other.transit();
        lost += fate.empty();
        twice += fate.size() == 2;
        for (const auto delay : fate) {
            ++copies;
            const bool late = delay > lab::FaultyLink::kHeldBack;
            heldBack += late;
            EXPECT_GE(delay, 5ms);
            EXPECT_LE(delay, late ? 9ms + lab::FaultyLink::kHeldBack : 9ms);
        }
    }
    EXPECT_GT(different, kDatagrams / 2);
    EXPECT_NEAR(lost, 0.3 * kDatagrams, 200);
    EXPECT_NEAR(twice, 0.7 * 0.2 * kDatagrams, 150);
    EXPECT_NEAR(heldBack, 0.1 * copies, 150);
}

TEST(DashboardCollectorTest, AcknowledgesAndComesAndGoes) {
    WorkPool pool(1);
    const auto queue = makeNetworkQueue(pool);
    lab::DashboardCollector collector({.datagrams = {.duplicate = 1}});
    const auto socket = std::move(*queue->makeUdpSocket());
    ASSERT_EQ(socket->connect("127.0.0.1", collector.port()), 0);
    ASSERT_TRUE(socket->makeReadSource());
    DashboardFields reliable;
    reliable.reliable = true;
    EXPECT_TRUE(socket->send(datagramOf(1)));
    EXPECT_TRUE(socket->send("nonsense"));
    EXPECT_TRUE(socket->send(datagramOf(2, {{"k", "v"}}, reliable)));
    std::promise<std::string> answer;
    queue->post([&] {
        socket->whenReadable([&] {
            std::string buffer(1088, '\0');
            buffer.resize(socket->receive(buffer));
            answer.set_value(buffer);
        });
    });
    EXPECT_EQ(answer.get_future().get(), datagramOf(2, {{"k", "v"}}, reliable).substr(0, 64));
    EXPECT_TRUE(collector.waitForReports(2, 1min));
    EXPECT_EQ(collector.reports().size(), 4u);
    EXPECT_THAT(collector.problems(), ElementsAre("shorter than a header", "shorter than a header"));

    collector.refuse();
    EXPECT_TRUE(collector.accept());
    socket->send(datagramOf(3));  // may be told of what was refused meanwhile
    socket->send(datagramOf(3));
    EXPECT_TRUE(collector.waitForReports(3, 1min));
}

}  // namespace
}  // namespace telvora::test
