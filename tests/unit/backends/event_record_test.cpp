// SPDX-License-Identifier: Apache-2.0
#include "backends/event_record.h"

#include <gtest/gtest.h>

#include <limits>

namespace telvora {
namespace {

struct Strings {
    std::optional<std::string> session = "top.own";
    std::optional<std::string> family = "Family";
    std::optional<std::string> model = "Model1,1";
    std::optional<std::string> version = "12.1";
    std::optional<std::string> build = "B77";
};

EventFields fieldsOf(const Strings& strings) {
    return {.startTimeStamp = 119.9,
            .timestamp = {130, 0},
            .sender = "VC",
            .clientVersion = 3,
            .combinedSessionID = strings.session,
            .numericSessionID = {},
            .eventNumber = 9,
            .method = 5,
            .status = 6,
            .productFamily = strings.family,
            .productModel = strings.model,
            .osVersion = strings.version,
            .build = strings.build,
            .internal = true,
            .reportVersion = "8.0.2",
            .timezoneOffset = -3600};
}

TEST(EventRecordTest, FieldsOverwriteThePayload) {
    const Strings strings;
    const Dictionary payload{{"_method", 77}, {"_startTS", "x"}, {"Opt", 1}, {"rtt", 12}, {"zeta", "z"}};
    const double clientTime = 60 + (130.0 - 119.9);
    const Dictionary expected{
        {"Opt", 1},
        {"_build", "B77"},
        {"_clientTS", clientTime},
        {"_clientVersion", 3},
        {"_eventNumber", 9},
        {"_internal", 1},
        {"_method", 5},
        {"_osVersion", "12.1"},
        {"_productFamily", "Family"},
        {"_productModel", "Model1,1"},
        {"_reportVers", "8.0.2"},
        {"_sender", "VC"},
        {"_sessionID", "top.own"},
        {"_startTS", 60},
        {"_status", 6},
        {"_timezoneOffset", -3600},
        {"eventTime", clientTime},
        {"rtt", 12},
        {"zeta", "z"},
    };
    EXPECT_EQ(newEventDictfromPayload(payload, fieldsOf(strings), nullptr), expected);
}

TEST(EventRecordTest, AbsentStringsAreLeftOut) {
    const Strings strings{std::nullopt, "Family", std::nullopt, std::nullopt, std::nullopt};
    const Dictionary record = newEventDictfromPayload(std::nullopt, fieldsOf(strings), nullptr);
    for (const char* key : {"_sessionID", "_productModel", "_osVersion", "_build"})
        EXPECT_FALSE(record.contains(key)) << key;
    EXPECT_EQ(record.size(), 12u);
}

TEST(EventRecordTest, TheNumberStandsInForTheCombinedID) {
    const Strings strings;
    EventFields fields = fieldsOf(strings);
    fields.numericSessionID = 4294967295u;
    const Dictionary record = newEventDictfromPayload(std::nullopt, fields, nullptr);
    EXPECT_EQ(*record.find("_sessionID"), PropertyList(4294967295u));
}

TEST(EventRecordTest, TimesThatAreNoNumbersBecomeMinusOne) {
    const Strings strings;
    EventFields fields = fieldsOf(strings);
    fields.startTimeStamp = -std::numeric_limits<double>::infinity();
    const Dictionary record = newEventDictfromPayload(std::nullopt, fields, nullptr);
    EXPECT_EQ(record.real("_clientTS"), -1.0);
    EXPECT_EQ(record.real("eventTime"), -1.0);
}

TEST(EventRecordTest, TimesBeforeTheEpochRoundTowardZero) {
    const Strings strings;
    EventFields fields = fieldsOf(strings);
    fields.startTimeStamp = -119.9;
    fields.timestamp = {-110, 0};
    const Dictionary record = newEventDictfromPayload(std::nullopt, fields, nullptr);
    EXPECT_EQ(record.integer("_startTS"), -60);
    EXPECT_DOUBLE_EQ(*record.real("_clientTS"), -60 + 9.9);
}

}  // namespace
}  // namespace telvora
