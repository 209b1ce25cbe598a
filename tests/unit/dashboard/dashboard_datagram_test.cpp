// SPDX-License-Identifier: Apache-2.0
//
// Datagrams against bytes put together by hand; docs/formats.md shows the first of them. The laboratory's
// collector, which knows that page alone, has to decode them all.
#include "dashboard/dashboard_datagram.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "telvora-lab/dashboard_collector.h"

namespace telvora {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::Pair;

const DashboardFields kExample{.version = 3,
                               .componentType = 7,
                               .timestamp = {12, 345678},
                               .sessionID = 777,
                               .clientVersion = 5,
                               .method = 4,
                               .respCode = 9,
                               .deviceID = {"0123456789abcdef0123456789abcdef01234567"},
                               .eventNumber = 258,
                               .reliable = true,
                               .fromProfile = true};

DashboardDatagram datagramOf(const Dictionary& payload, const DashboardFields& fields = kExample) {
    DashboardDatagram datagram;
    fillDashboardDatagram(datagram, fields, payload);
    return datagram;
}

TEST(DashboardDatagramTest, TheExampleOfTheDocument) {
    const DashboardDatagram datagram =
        datagramOf({{"note", "a=b\\c"}, {"city", "Z\xc3\xbcrich"}, {"ok", true}});
    EXPECT_EQ(datagram.bytes(),
              "\x03\x07\x01\x56\x00\x00\x00\x0c\xff\xff\xfc\xf6\xff\xfa\xff\xa0\x00\x04\x00\x09"s
              "0123456789abcdef0123456789abcdef01234567"
              "\x01\x02\x00\x01 ok=1 note=a\\=b\\\\c city=Z\xc3\xbcrich"s);
    EXPECT_EQ(renderDashboardDatagram(datagram),
              "12.344 0123456789abcdef0123456789abcdef01234567 127.0.0.1 VC     5   777   258     4     9  "
              "ok=1 note=a\\=b\\\\c city=Z\xc3\xbcrich");
}

TEST(DashboardDatagramTest, PayloadsBecomeText) {
    using Int = std::numeric_limits<int64_t>;
    const auto v = [](size_t length) { return std::string(length, 'v'); };
    const std::pair<Dictionary, std::string> cases[] = {
        {{}, ""},
        // The shortest value first, its length in characters before it is sanitized.
        {{{"x", "long value"}, {"y", 7}}, " y=7 x=long value"},
        {{{"c", "22"}, {"a", "33"}, {"b", "11"}}, " a=33 b=11 c=22"},
        {{{"a", "\xc3\xa4\xc3\xa4"}, {"b", "123"}}, " a=\xc3\xa4\xc3\xa4 b=123"},
        {{{"a", "===="}, {"b", "12345"}}, " a=\\=\\=\\=\\= b=12345"},
        {{{"a", "\nx\n\ny\n"}, {"b", "\r "}}, " b=\r  a=xy"},
        {{{"a", ""}, {"b", "\n\n"}}, " a=empty b=empty"},
        {{{"a", "a=b\\c"}, {"b", "\\="}}, " b=\\\\\\= a=a\\=b\\\\c"},
        {{{"a=b\\ \nc", 1}, {"", 22}}, " a=b\\ \nc=1 =22"},  // keys as they are
        {{{"a", Int::min()}, {"b", Int::max()}, {"c", std::numeric_limits<uint64_t>::max()}, {"d", 0}},
         " d=0 b=9223372036854775807 a=-9223372036854775808 c=18446744073709551615"},
        {{{"a", 7.0}, {"b", -0.125}, {"c", 1e5}, {"d", std::nan("")}, {"e", 1e-7}},
         " a=7 d=-1 b=-0.125 c=100000 e=0.0000001"},
        {{{"a", -std::numeric_limits<double>::denorm_min()}, {"b", 1e22}},
         " b=10000000000000000000000 a=-0." + std::string(323, '0') + "5"},
        {{{"a", true}, {"b", false}}, " a=1 b=0"},
        {{{"a", Array{1}}, {"b", Dictionary{{"c", 1}}}, {"c", Data{"x"}}, {"d", Date{1}}},
         " a=null b=null c=null d=null"},
        {{{"a", "x\0y"s}}, " a=x"},
        // The text ends at 1023 bytes.
        {{{"k", v(1020)}}, " k=" + v(1020)},
        {{{"k", v(5000)}}, " k=" + v(1020)},
        // After the bound no pair follows, even if it would fit.
        {{{"a", "1"}, {"b", v(2000)}, {"c", v(2001)}}, " a=1 b=" + v(1016)},
        // Truncated within a key, and between a backslash and the escaped character.
        {{{"a", v(1017)}, {"key", v(1018)}}, " a=" + v(1017) + " ke"},
        {{{"a", v(1019) + "="}}, " a=" + v(1019) + "\\"}};
    for (const auto& [payload, text] : cases) {
        const DashboardDatagram datagram = datagramOf(payload);
        EXPECT_EQ(datagram.text(), text);
        EXPECT_TRUE(renderDashboardDatagram(datagram).ends_with(text));
        const auto complement = static_cast<uint16_t>(~(64 + text.size()));
        EXPECT_EQ(static_cast<uint8_t>(datagram.buffer[14]) << 8 | static_cast<uint8_t>(datagram.buffer[15]),
                  complement);
        const auto report = lab::decodeDashboardDatagram(datagram.bytes());
        ASSERT_TRUE(report) << report.error();
        EXPECT_EQ(report->text, text);
    }
}

TEST(DashboardDatagramTest, TheLineHasACodeForComponentsInTheTableAlone) {
    for (const auto& [type, code] : {std::pair{0, "SM"}, {18, "LINDQVAR"}, {19, ""}, {128, ""}, {255, ""}}) {
        DashboardFields fields{.componentType = static_cast<uint8_t>(type), .timestamp = {}};
        fields.sessionID = 4294967295;
        EXPECT_EQ(renderDashboardDatagram(datagramOf({}, fields)),
                  "0.000  127.0.0.1 "s + code + "     0 4294967295     0     0     0 ");
    }
}

TEST(DashboardCollectorTest, FindsThePairsAndRefusesWhatIsNoDatagram) {
    const DashboardDatagram escaped = datagramOf({{"k1", "/ b\\=="}, {"k2", "\\ x=1 k3=2\t\r/\xc3\xa4"}});
    EXPECT_THAT(lab::dashboardPairs(lab::decodeDashboardDatagram(escaped.bytes())->text),
                ElementsAre(Pair("k1", "/ b\\=="), Pair("k2", "\\ x=1 k3=2\t\r/\xc3\xa4")));
    const DashboardDatagram longest = datagramOf({{"k", std::string(2000, 'v')}});
    const std::string whole(longest.bytes());
    for (const std::string& other : {std::string(), whole.substr(0, 63), whole.substr(0, 1086), whole + "v"})
        EXPECT_FALSE(lab::decodeDashboardDatagram(other)) << other.size();
    const std::pair<size_t, char> changes[] = {
        {2, 2}, {3, static_cast<char>(250)}, {15, 0}, {21, 'd'}, {63, 4}, {64, 'k'}, {65, '\0'}};
    for (const auto& [offset, byte] : changes) {
        std::string changed(datagramOf({{"k", "v"}}, {}).bytes());
        changed[offset] = byte;
        EXPECT_FALSE(lab::decodeDashboardDatagram(changed)) << offset;
    }
}

TEST(DashboardCollectorTest, CountsReportsBeyondTheLastNumber) {
    lab::DashboardTally tally;
    for (const uint16_t number : {65534, 65535, 0, 2, 65535, 3})
        tally.count(
            *lab::decodeDashboardDatagram(datagramOf({}, {.timestamp = {}, .eventNumber = number}).bytes()));
    EXPECT_EQ(tally.arrived(), 6u);
    EXPECT_EQ(tally.distinct(), 5u);
    EXPECT_EQ(tally.deliveryRatio(), 5.0 / 6);  // 1 is missing
    EXPECT_THAT(tally.timesArrived(), ElementsAre(Pair(1, 4), Pair(2, 1)));
}

}  // namespace
}  // namespace telvora
