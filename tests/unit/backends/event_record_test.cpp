// SPDX-License-Identifier: Apache-2.0
//
// One report's record, and the message of reports that is posted.
#include "backends/event_record.h"

#include <gmock/gmock.h>
#include <rapidjson/document.h>

#include <cmath>
#include <cstdint>

#include "backends/json_message.h"
#include "plist/json_writer.h"
#include "tests/support/log_capture.h"

namespace telvora {
namespace {

using Text = std::optional<std::string>;
const Text kAbsent, kFamily = "Family", kSession = "top.own", kModel = "Model1,1", kVersion = "12.1",
                    kBuild = "B77";

// A report of the second 130 in a session that began at `start`.
EventFields fields(double start, bool complete = true) {
    const auto text = [complete](const Text& value) -> const Text& { return complete ? value : kAbsent; };
    return {start,        {130, 0},       "VC",         3,    text(kSession), {},   9, 5, 6, kFamily,
            text(kModel), text(kVersion), text(kBuild), true, "8.0.2",        -3600};
}

TEST(EventRecordTest, FieldsOverwriteThePayload) {
    const Dictionary payload{{"_method", 77}, {"_startTS", "x"}, {"Opt", 1}, {"rtt", 12}, {"zeta", "z"}};
    const double clientTime = 60 + (130.0 - 119.9);
    Dictionary expected{{"Opt", 1}, {"_build", "B77"}, {"_clientTS", clientTime}, {"_clientVersion", 3}};
    expected.merge({{"_eventNumber", 9}, {"_internal", 1}, {"_method", 5}, {"_osVersion", "12.1"}});
    expected.merge({{"_productFamily", "Family"}, {"_productModel", "Model1,1"}, {"_reportVers", "8.0.2"}});
    expected.merge({{"_sender", "VC"}, {"_sessionID", "top.own"}, {"_startTS", 60}, {"_status", 6}});
    expected.merge({{"_timezoneOffset", -3600}, {"eventTime", clientTime}, {"rtt", 12}, {"zeta", "z"}});
    EXPECT_EQ(newEventDictfromPayload(payload, fields(119.9), nullptr), expected);
}

TEST(EventRecordTest, AbsentStringsAreLeftOutAndTheNumberStandsInForTheCombinedID) {
    const Dictionary record = newEventDictfromPayload(std::nullopt, fields(119.9, false), nullptr);
    for (const char* key : {"_sessionID", "_productModel", "_osVersion", "_build"})
        EXPECT_FALSE(record.contains(key)) << key;
    EXPECT_EQ(record.size(), 12u);

    EventFields numbered = fields(119.9);
    numbered.numericSessionID = 4294967295u;
    EXPECT_EQ(*newEventDictfromPayload(std::nullopt, numbered, nullptr).find("_sessionID"),
              PropertyList(4294967295u));
}

TEST(EventRecordTest, TimesAreNumbersWhateverTheClock) {
    const Dictionary record = newEventDictfromPayload(std::nullopt, fields(-INFINITY), nullptr);
    EXPECT_EQ(record.real("_clientTS"), -1.0);
    EXPECT_EQ(record.real("eventTime"), -1.0);

    EventFields early = fields(-119.9);  // before the epoch, seconds are rounded toward zero
    early.timestamp = {-110, 0};
    const Dictionary earlyRecord = newEventDictfromPayload(std::nullopt, early, nullptr);
    EXPECT_EQ(earlyRecord.integer("_startTS"), -60);
    EXPECT_DOUBLE_EQ(*earlyRecord.real("_clientTS"), -60 + 9.9);
}

TEST(JsonMessageTest, WritesEveryTypeCompactOrPretty) {
    Dictionary event{{"bool", true}, {"int", -7}, {"uint", UINT64_MAX}, {"tenth", 0.1}, {"whole", 3.0}};
    event.merge({{"nan", NAN}, {"big", 1e300}, {"time", 1447660800.123456}});
    event.merge({{"text", "a\"b\\\n\x01/€"}, {"broken \xff", "\xc3(\xed\xa0\x80"}});
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

    // Lines are indented as by the library, to any depth.
    Dictionary deep;
    for (int i = 0; i < 40; ++i)
        deep = {{"a", i}, {"deep", std::move(deep)}, {"list", Array{true, Dictionary{{"b", "x"}}}}};
    rapidjson::Document document;
    document.Parse(jsonText(deep).c_str());
    rapidjson::StringBuffer expected;
    rapidjson::PrettyWriter writer(expected);
    writer.SetIndent(' ', 2);
    document.Accept(writer);
    EXPECT_EQ(jsonText(deep, JsonLayout::pretty), expected.GetString());
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
    const Dictionary safe{{"bool", false}, {"text", "t"}};
    Dictionary event{
        {"array", Array{1, 2}}, {"data", Data{"\x01\x02"}}, {"nested", Dictionary{{"private", "value"}}}};
    event.merge(safe);
    event.merge({{"date", Date{12.5}}, {"endless", Date{INFINITY}}});
    const test::LogCapture log;
    makeJsonSafe(event);
    EXPECT_EQ(event, Dictionary::merged(safe, {{"date", 12.5}, {"endless", -1.0}}));
    const std::string line =
        "<4>HTTPSPostBackend(createMessageForPostAndLogging): NSJSONSerialization unable to handle key: ";
    EXPECT_THAT(log.lines(), testing::ElementsAre(line + "array, value: <array, 2 elements>",
                                                  line + "data, value: <data, 2 bytes>",
                                                  line + "nested, value: <dictionary, 1 entries>"));
}

}  // namespace
}  // namespace telvora
