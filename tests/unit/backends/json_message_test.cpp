// SPDX-License-Identifier: Apache-2.0
#include "backends/json_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cmath>
#include <cstdint>

#include "tests/support/log_capture.h"

namespace telvora {
namespace {

TEST(JsonMessageTest, WritesEveryTypeCompactOrPretty) {
    const Dictionary event{{"bool", true},
                           {"int", -7},
                           {"uint", UINT64_MAX},
                           {"tenth", 0.1},
                           {"whole", 3.0},
                           {"nan", NAN},
                           {"big", 1e300},
                           {"time", 1447660800.123456},
                           {"text", "a\"b\\\n\x01/€"},
                           {"broken \xff", "\xc3(\xed\xa0\x80"}};
    EXPECT_EQ(compactJson({1447660800.25, "id", {&event, 1}}),
              "{\"postTime\":1447660800.25,\"clientId\":\"id\",\"events\":[{\"big\":1e+300,\"bool\":true,"
              "\"broken \xef\xbf\xbd\":\"\xef\xbf\xbd(\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\","
              "\"int\":-7,\"nan\":-1.0,\"tenth\":0.1,\"text\":\"a\\\"b\\\\\\n\\u0001/€\","
              "\"time\":1447660800.123456,\"uint\":18446744073709551615,\"whole\":3.0}]}");

    const Dictionary small{{"a", 1}};
    EXPECT_EQ(prettyJson({1.5, "id", {&small, 1}}),
              "{\n  \"postTime\": 1.5,\n  \"clientId\": \"id\",\n  \"events\": [\n    {\n      \"a\": 1\n    "
              "}\n  ]\n}");
    // Without a client identifier, only the time is written.
    EXPECT_EQ(compactJson({INFINITY, std::nullopt, {&small, 1}}), "{\"postTime\":-1.0}");
}

// Texts are looked at eight characters at a time: each place in a block and each rest is another case.
TEST(JsonMessageTest, NoSpecialCharacterSlipsThrough) {
    for (const std::string& special : {std::string("\""), std::string("\\"), std::string(1, '\0'),
                                       std::string("\x1f"), std::string("é"), std::string("~")}) {
        for (size_t length = 0; length < 20; ++length) {
            for (size_t place = 0; place <= length; ++place) {
                const std::string text = std::string(length, 'x').insert(place, special);
                const Dictionary event{{"k", text}};
                rapidjson::Document message;
                message.Parse(compactJson({1, "id", {&event, 1}}).c_str());
                ASSERT_FALSE(message.HasParseError()) << text;
                const auto& value = message["events"][0]["k"];
                ASSERT_EQ(std::string(value.GetString(), value.GetStringLength()), text);
            }
        }
    }
}

TEST(JsonMessageTest, WhatJsonCantCarryIsRemovedWithAWarning) {
    Dictionary event{{"array", Array{1, 2}},
                     {"bool", false},
                     {"data", Data{"\x01\x02"}},
                     {"date", Date{12.5}},
                     {"endless", Date{INFINITY}},
                     {"nested", Dictionary{{"private", "value"}}},
                     {"text", "t"}};
    const test::LogCapture log;
    makeJsonSafe(event);
    EXPECT_EQ(event, (Dictionary{{"bool", false}, {"date", 12.5}, {"endless", -1.0}, {"text", "t"}}));
    const std::string line =
        "<4>HTTPSPostBackend(createMessageForPostAndLogging): NSJSONSerialization unable to handle key: ";
    EXPECT_THAT(log.lines(), testing::ElementsAre(line + "array, value: <array, 2 elements>",
                                                  line + "data, value: <data, 2 bytes>",
                                                  line + "nested, value: <dictionary, 1 entries>"));
}

}  // namespace
}  // namespace telvora
