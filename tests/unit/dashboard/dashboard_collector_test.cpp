// SPDX-License-Identifier: Apache-2.0
//
// The laboratory's collector, which knows the datagram from docs/formats.md alone, against what the backend
// makes.
#include "telvora-lab/dashboard_collector.h"

#include <gmock/gmock.h>

#include <random>

#include "dashboard/dashboard_datagram.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::Pair;

std::string datagramOf(DashboardFields fields, const Dictionary& payload = {}) {
    DashboardDatagram datagram;
    fillDashboardDatagram(datagram, fields, payload);
    return std::string(datagram.bytes());
}

TEST(DashboardCollectorTest, DecodesWhateverTextTheBackendSends) {
    std::mt19937 random(1);
    const auto below = [&random](uint32_t bound) { return static_cast<uint32_t>(random()) % bound; };
    const char* const pieces[] = {"\\", "=", "a", " b", "\xc3\xa4", "\r", "\t", "value", "\\=", "/"};
    for (int round = 0; round < 2000; ++round) {
        Dictionary payload, pairs;
        for (uint32_t i = below(6); i > 0; --i) {
            std::string value = "/";
            for (uint32_t j = below(9); j > 0; --j)
                value += pieces[below(std::size(pieces))];
            payload.set("key" + std::to_string(i), value);
        }
        const auto report = lab::decodeDashboardDatagram(datagramOf({}, payload));
        ASSERT_TRUE(report) << report.error();
        for (const auto& [key, value] : lab::dashboardPairs(report->text))
            pairs.set(key, value);
        EXPECT_EQ(pairs, payload);
    }
}

TEST(DashboardCollectorTest, RefusesWhatIsNoDatagram) {
    const std::string whole = datagramOf({}, {{"k", std::string(2000, 'v')}});
    EXPECT_TRUE(lab::decodeDashboardDatagram(whole));
    for (const std::string& other : {std::string(), whole.substr(0, 63), whole.substr(0, 1086), whole + "v"})
        EXPECT_FALSE(lab::decodeDashboardDatagram(other)) << other.size();
    const std::pair<size_t, char> changes[] = {
        {2, 2}, {3, static_cast<char>(250)}, {15, 0}, {21, 'd'}, {63, 4}, {64, 'k'}, {65, '\0'}};
    for (const auto& [offset, byte] : changes) {
        std::string changed = datagramOf({}, {{"k", "v"}});
        changed[offset] = byte;
        EXPECT_FALSE(lab::decodeDashboardDatagram(changed)) << offset;
    }
}

TEST(DashboardCollectorTest, CountsReportsBeyondTheLastNumber) {
    lab::DashboardTally tally;
    for (const uint16_t number : {65534, 65535, 0, 2, 65535, 3})
        tally.count(*lab::decodeDashboardDatagram(datagramOf({.timestamp = {}, .eventNumber = number})));
    EXPECT_EQ(tally.arrived(), 6u);
    EXPECT_EQ(tally.distinct(), 5u);
    EXPECT_EQ(tally.deliveryRatio(), 5.0 / 6);  // 1 is missing
    EXPECT_THAT(tally.timesArrived(), ElementsAre(Pair(1, 4), Pair(2, 1)));
}

}  // namespace
}  // namespace telvora::test
