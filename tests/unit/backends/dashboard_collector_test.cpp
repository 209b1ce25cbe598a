// SPDX-License-Identifier: Apache-2.0
//
// The laboratory's collector, which knows the datagram from docs/formats.md alone, against what the backend
// makes.
#include "telvora-lab/dashboard_collector.h"

#include <gmock/gmock.h>

#include <random>

#include "backends/dashboard_datagram.h"

namespace telvora::test {
namespace {

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

}  // namespace
}  // namespace telvora::test
