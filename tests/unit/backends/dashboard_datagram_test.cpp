// SPDX-License-Identifier: Apache-2.0
//
// Datagrams against bytes put together by hand; docs/formats.md shows the first of them.
#include "backends/dashboard_datagram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>

namespace telvora {
namespace {

using namespace std::string_literals;

DeviceIDBuffer deviceID(std::string_view text) {
    DeviceIDBuffer buffer{};
    std::copy(text.begin(), text.end(), buffer.begin());
    return buffer;
}

constexpr std::string_view kDeviceID = "0123456789abcdef0123456789abcdef01234567";

DashboardFields exampleFields() {
    return {.version = 3,
            .componentType = 7,
            .timestamp = {12, 345678},
            .sessionID = 777,
            .clientVersion = 5,
            .method = 4,
            .respCode = 9,
            .deviceID = deviceID(kDeviceID),
            .eventNumber = 258,
            .reliable = true,
            .fromProfile = true};
}

std::string datagramOf(const DashboardFields& fields, const Dictionary& payload = {}) {
    DashboardDatagram datagram;
    fillDashboardDatagram(datagram, fields, payload);
    return std::string(datagram.bytes());
}

std::string textOf(const Dictionary& payload) {
    return datagramOf(exampleFields(), payload).substr(kDashboardHeaderBytes);
}

TEST(DashboardDatagramTest, TheExampleOfTheDocument) {
    DashboardDatagram datagram;
    fillDashboardDatagram(datagram, exampleFields(),
                          {{"note", "a=b\\c"}, {"city", "Z\xc3\xbcrich"}, {"ok", true}});
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
    const struct {
        const char* what;
        Dictionary payload;
        std::string text;
    } cases[] = {
        {"nothing", {}, ""},
        {"shortest value first", {{"x", "long value"}, {"y", 7}}, " y=7 x=long value"},
        {"equal lengths", {{"c", "22"}, {"a", "33"}, {"b", "11"}}, " a=33 b=11 c=22"},
        {"length in characters, not bytes",
         {{"a", "\xc3\xa4\xc3\xa4"}, {"b", "123"}},
         " a=\xc3\xa4\xc3\xa4 b=123"},
        {"length before it is sanitized", {{"a", "===="}, {"b", "12345"}}, " a=\\=\\=\\=\\= b=12345"},
        {"line feeds", {{"a", "\nx\n\ny\n"}, {"b", "\r "}}, " b=\r  a=xy"},
        {"empty", {{"a", ""}, {"b", "\n\n"}}, " a=empty b=empty"},
        {"backslashes and equals signs", {{"a", "a=b\\c"}, {"b", "\\="}}, " b=\\\\\\= a=a\\=b\\\\c"},
        {"keys as they are", {{"a=b\\ \nc", 1}, {"", 22}}, " a=b\\ \nc=1 =22"},
        {"integers at their limits",
         {{"a", Int::min()}, {"b", Int::max()}, {"c", std::numeric_limits<uint64_t>::max()}, {"d", 0}},
         " d=0 b=9223372036854775807 a=-9223372036854775808 c=18446744073709551615"},
        {"reals", {{"a", 7.0}, {"b", -0.125}, {"c", 1e100}}, " a=7 b=-0.125 c=1e+100"},
        {"reals that are none", {{"a", std::numeric_limits<double>::quiet_NaN()}}, " a=-1"},
        {"booleans", {{"a", true}, {"b", false}}, " a=1 b=0"},
        {"what is no text and no number",
         {{"a", Array{1}}, {"b", Dictionary{{"c", 1}}}, {"c", Data{"x"}}, {"d", Date{1}}},
         " a=null b=null c=null d=null"},
        {"a zero byte", {{"a", "x\0y"s}}, " a=x"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(textOf(test.payload), test.text) << test.what;
        const auto length = static_cast<uint16_t>(~(64 + test.text.size()));
        const std::string datagram = datagramOf(exampleFields(), test.payload);
        EXPECT_EQ(static_cast<uint8_t>(datagram[14]) << 8 | static_cast<uint8_t>(datagram[15]), length)
            << test.what;
    }
}

TEST(DashboardDatagramTest, TheTextEndsAt1023Bytes) {
    const auto ofLength = [](size_t length) {  // " k=" and the value
        return std::string(length - 3, 'v');
    };
    EXPECT_EQ(textOf({{"k", ofLength(1023)}}), " k=" + ofLength(1023));
    EXPECT_EQ(textOf({{"k", ofLength(1024)}}), " k=" + ofLength(1023));
    // Once the bound is reached nothing follows, though it would fit in the place of what was cut.
    EXPECT_EQ(textOf({{"a", "1"}, {"b", std::string(2000, 'v')}, {"c", std::string(2001, 'w')}}),
              " a=1 b=" + std::string(1023 - 7, 'v'));
    // Cut in the middle of a key, and between a backslash and what it stands before.
    EXPECT_EQ(textOf({{"a", std::string(1017, 'v')}, {"key", std::string(1018, 'w')}}),
              " a=" + std::string(1017, 'v') + " ke");
    EXPECT_EQ(textOf({{"a", std::string(1019, 'v') + "="}}), " a=" + std::string(1019, 'v') + "\\");

    const std::string whole = datagramOf(exampleFields(), {{"k", std::string(5000, 'v')}});
    EXPECT_EQ(whole.size(), 1087u);
    EXPECT_EQ(whole.substr(14, 2), "\xfb\xc0"s);  // the complement of 1087
}

TEST(DashboardDatagramTest, TheLineUndoesTheComplements) {
    DashboardFields fields = exampleFields();
    fields.deviceID = deviceID("short");
    fields.sessionID = 4294967295;
    fields.clientVersion = 65535;
    fields.timestamp = {0, 3999};
    const auto lineOf = [&fields](uint8_t componentType, const Dictionary& payload = {}) {
        DashboardDatagram datagram;
        fields.componentType = componentType;
        fillDashboardDatagram(datagram, fields, payload);
        return renderDashboardDatagram(datagram);
    };
    EXPECT_EQ(lineOf(15), "0.000 short 127.0.0.1 VT-CRABS 65535 4294967295   258     4     9 ");
    EXPECT_EQ(lineOf(0), "0.000 short 127.0.0.1 SM 65535 4294967295   258     4     9 ");
    // Component types that have no code.
    for (const int type : {19, 128, 255})
        EXPECT_EQ(lineOf(static_cast<uint8_t>(type)),
                  "0.000 short 127.0.0.1  65535 4294967295   258     4     9 ");
    EXPECT_TRUE(lineOf(18, {{"k", std::string(5000, 'v')}}).ends_with(" k=" + std::string(1020, 'v')));
}

}  // namespace
}  // namespace telvora
