// SPDX-License-Identifier: Apache-2.0
#include "backends/event_record.h"

#include <gtest/gtest.h>

#include <limits>

namespace telvora {
namespace {

using Text = std::optional<std::string>;
const Text kAbsent;
const Text kSession = "top.own";
const Text kFamily = "Family";
const Text kModel = "Model1,1";
const Text kVersion = "12.1";
const Text kBuild = "B77";

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
    const EventFields endless = fields(-std::numeric_limits<double>::infinity());
    const Dictionary record = newEventDictfromPayload(std::nullopt, endless, nullptr);
    EXPECT_EQ(record.real("_clientTS"), -1.0);
    EXPECT_EQ(record.real("eventTime"), -1.0);

    EventFields early = fields(-119.9);  // before the epoch, seconds are rounded toward zero
    early.timestamp = {-110, 0};
    const Dictionary earlyRecord = newEventDictfromPayload(std::nullopt, early, nullptr);
    EXPECT_EQ(earlyRecord.integer("_startTS"), -60);
    EXPECT_DOUBLE_EQ(*earlyRecord.real("_clientTS"), -60 + 9.9);
}

}  // namespace
}  // namespace telvora
