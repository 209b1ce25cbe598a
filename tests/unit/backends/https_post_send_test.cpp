// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora {
namespace {

using test::kNow;
using test::LogCapture;
using test::ReportingRig;
using test::shared;
using test::userInfoOf;
using testing::Contains;
using Posts = std::vector<std::vector<int>>;

constexpr SendFlag kPlain{0};
constexpr SendFlag kRealtime{1};
constexpr SendFlag kPromote{2};
constexpr SendFlag kPromoteRealtime{3};

constexpr auto kWaiting = BackendState::waitingForUserInfo;
constexpr auto kDisabled = BackendState::disabled;
constexpr auto kReporting = BackendState::reporting;
constexpr auto kSampledOut = BackendState::sampledOut;

constexpr char kPost[] = "https://post.example/";
constexpr char kRealtimePost[] = "https://realtime.example/";

struct FlushResult {
    int calls = 0;
    std::optional<std::string> answer;
    std::optional<TelvoraError> error;
};

FlushCompletion into(FlushResult& result) {
    return [&result](std::optional<std::string> answer, std::optional<TelvoraError> error) {
        result = {result.calls + 1, std::move(answer), std::move(error)};
    };
}

std::shared_ptr<const Dictionary> userInfoWith(const Dictionary& more) {
    Dictionary userInfo = userInfoOf("app", "network");
    userInfo.merge(more);
    return shared(std::move(userInfo));
}

TEST(HTTPSPostSendTest, StateFlagAndSettingsDecideOnPostingAtOnce) {
    const struct {
        const char* what;
        BackendState state;
        SendFlag flag;
        bool batchEvents;
        bool hasUserInfo;
        const char* url;  // null: not posted
        BackendState after;
    } cases[] = {
        {"plain", kReporting, kPlain, false, true, kPost, kReporting},
        {"batched", kReporting, kPlain, true, true, nullptr, kReporting},
        {"realtime", kReporting, kRealtime, true, true, kRealtimePost, kReporting},
        {"no user info", kReporting, kRealtime, false, false, nullptr, kReporting},
        {"unknown bit", kReporting, SendFlag{5}, true, true, nullptr, kReporting},
        {"promote in vain", kReporting, kPromote, false, true, kPost, kReporting},
        {"sampled out", kSampledOut, kRealtime, false, true, nullptr, kSampledOut},
        {"promoted", kSampledOut, kPromote, false, true, kPost, kReporting},
        {"promoted realtime", kSampledOut, kPromoteRealtime, true, true, kRealtimePost, kReporting},
        {"not promoted by an unknown bit", kSampledOut, SendFlag{6}, false, true, nullptr, kSampledOut},
        {"waiting", kWaiting, kPromoteRealtime, false, true, nullptr, kWaiting},
        {"disabled", kDisabled, kPromoteRealtime, false, true, nullptr, kDisabled},
    };
    for (const auto& c : cases) {
        const ReportingRig rig({}, c.batchEvents);
        rig.backend->setState(c.state);
        if (!c.hasUserInfo) rig.backend->setUserInfoDict(nullptr);
        EXPECT_EQ(rig.send(c.flag).has_value(), c.url != nullptr) << c.what;
        EXPECT_EQ(rig.backend->state(), c.after) << c.what;
        const auto requests = rig.http.requests();
        ASSERT_EQ(requests.size(), c.url != nullptr ? 1u : 0u) << c.what;
        if (c.url != nullptr) {
            EXPECT_EQ(requests[0].url, c.url) << c.what;
        }
    }
}

TEST(HTTPSPostSendTest, UserInfoWinsOverFieldsAndFiltersActLast) {
    const ReportingRig rig(
        {{"filters", Array{Dictionary{{"key", "SECRET"}, {"action", "sha256"}, {"method", 5}},
                           Dictionary{{"key", "_build"}, {"action", "remove"}}}}});
    rig.backend->setUserInfoDict(userInfoWith({{"_sessionID", "mine"}, {"secret", "from user info"}}));
    rig.backend->setBuildVersion("B77");
    rig.send(kPlain, 5, Dictionary{{"secret", "from payload"}, {"when", Date{12}}, {"box", Array{}}});
    const auto message = rig.message();
    EXPECT_EQ(message["postTime"].GetDouble(), 1447660800.25);
    const auto& event = message["events"][0];
    EXPECT_STREQ(event["_sessionID"].GetString(), "mine");
    EXPECT_EQ(event["secret"].GetString(), TelvoraBackend::convertIntoSHA256("from user info"));
    EXPECT_EQ(event["when"].GetDouble(), 12.0);
    EXPECT_EQ(event["_startTS"].GetInt(), 1447660800);
    EXPECT_EQ(event["_timezoneOffset"].GetInt(), 3600);
    EXPECT_FALSE(event.HasMember("_build"));
    EXPECT_FALSE(event.HasMember("box"));
}

TEST(HTTPSPostSendTest, SessionsAreNumberedForSomeClientTypes) {
    const struct {
        int32_t type;
        bool internal;
        bool numbered;
    } cases[] = {{7, false, true}, {11, false, false}, {11, true, true}, {13, true, true}, {12, true, false}};
    for (const auto& c : cases) {
        const ReportingRig rig;
        rig.backend->setCompType(c.type);
        rig.backend->setIsInternal(c.internal);
        rig.backend->setCombinedSessionIDString("top.own");
        rig.send();
        const auto message = rig.message();
        EXPECT_EQ(message["events"][0]["_sessionID"].IsUint(), c.numbered) << c.type;
        EXPECT_EQ(message["events"][0]["_internal"].GetInt(), 0);  // the device's build, not the session's
    }
}

TEST(HTTPSPostSendTest, TheStopReportTellsHowItWasSampled) {
    const ReportingRig rig;
    const LogCapture log;
    rig.backend->sendMessage(Dictionary{{"Batch", "client's"}}, kNow, 0, 1, kPlain);
    rig.backend->sendMessage(std::nullopt, kNow, 0, 1, kPlain);
    rig.backend->sendMessage(Dictionary{}, kNow, 0, 2, kPlain);
    const auto message = rig.message();
    const auto& event = message["events"][0];
    EXPECT_EQ(event["Opt"].GetInt(), 0);
    EXPECT_EQ(event["SamplingThreshold"].GetDouble(), 0.5);
    EXPECT_EQ(event["OverrideSampling"].GetInt(), -1);
    EXPECT_EQ(event["Batch"].GetInt(), 0);
    for (const size_t other : {size_t{1}, size_t{2}})
        EXPECT_FALSE(rig.message(other)["events"][0].HasMember("Opt")) << other;
    EXPECT_EQ(log.count("<3>HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil"), 1u);
    EXPECT_EQ(log.count("<7>HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to "
                        "SESSION_TYPE_STOP message dictionary"),
              2u);
}

TEST(HTTPSPostSendTest, ThresholdFlushesEveryMethod) {
    std::vector<int> first51(51);
    std::iota(first51.begin(), first51.end(), 1);
    const struct {
        int threshold;
        int sent;
        Posts posts;
    } cases[] = {
        {49, 50, {}},
        {49, 51, {first51}},  // with the one event of another method
        {0, 5, {{1, 2}, {3}, {4}, {5}}},
        {-1, 2, {{1}, {2}}},
    };
    for (const auto& c : cases) {
        const ReportingRig rig({{"event_threshold", c.threshold}}, true);
        const LogCapture log;
        rig.send(kPlain, 8);
        for (int i = 0; i < c.sent; ++i)
            rig.send();
        EXPECT_EQ(rig.posts(), c.posts) << c.threshold;
        EXPECT_EQ(
            log.contains("<7>HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event "
                         "threshold for method 5"),
            !c.posts.empty());
    }
}

TEST(HTTPSPostSendTest, RealtimeKeepsTheOrder) {
    const ReportingRig rig({}, true);
    rig.send();
    rig.send();
    const auto answer = rig.send(kRealtime);
    EXPECT_EQ(rig.posts(), (Posts{{1, 2}, {3}}));
    EXPECT_EQ(rig.http.requests()[0].url, kPost);
    EXPECT_EQ(rig.http.requests()[1].url, kRealtimePost);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->rfind("Flushed events:\n{\n", 0), 0u);
    EXPECT_NE(answer->find("\n}\nStandalone event:\n{\n"), std::string::npos);
    EXPECT_EQ(answer->back(), '}');
}

TEST(HTTPSPostSendTest, FlushTellsWhyNothingWasSent) {
    using Place = ReportPlace;
    const std::string nothing = "Nothing to flush";
    const std::string filtered = "Nothing to flush: batched events were completely filtered out";
    const struct {
        const char* what;
        BackendState state;
        bool hasEvent;
        bool hasUserInfo;
        Dictionary client;
        std::string error;
        ReportPlace place;
    } cases[] = {
        {"empty", kReporting, false, true, {}, nothing, Place::held},
        {"sampled out", kSampledOut, true, true, {}, nothing, Place::sampledOut},
        {"waiting", kWaiting, true, true, {}, nothing, Place::noUserInfo},
        {"disabled", kDisabled, true, true, {}, nothing, Place::disabled},
        {"no user info", kReporting, true, false, {}, "Can not flush: userInfo is required", Place::held},
        {"white", kReporting, true, true, {{"event_whitelist", Array{}}}, filtered, Place::notWhitelisted},
        {"black", kReporting, true, true, {{"event_blacklist", Array{5}}}, filtered, Place::blacklisted},
    };
    for (const auto& c : cases) {
        const ReportingRig rig(c.client, true);
        if (c.hasEvent) rig.send();
        rig.backend->setState(c.state);
        if (!c.hasUserInfo) rig.backend->setUserInfoDict(nullptr);
        FlushResult result;
        EXPECT_EQ(rig.backend->flushMessagesWithCompletion(into(result)), std::nullopt) << c.what;
        EXPECT_EQ(result.calls, 1) << c.what;
        EXPECT_EQ(result.answer, std::nullopt) << c.what;
        EXPECT_EQ(result.error, (TelvoraError{kTelvoraErrorDomain, -1, c.error})) << c.what;
        EXPECT_EQ(rig.http.requestCount(), 0u) << c.what;
        const uint64_t kept = rig.backend->reports().tally()[ReportPlace::held];
        EXPECT_EQ(rig.backend->reports().tally()[c.place], c.hasEvent ? 1u : 0u) << c.what;

        rig.backend->setState(kReporting);
        rig.backend->setUserInfoDict(userInfoWith({}));
        rig.backend->flushMessagesWithCompletion({});
        EXPECT_EQ(rig.http.requestCount(), kept) << c.what;
    }
}

TEST(HTTPSPostSendTest, FlushTakesWhatTheListsAdmitWithTheUserInfoOfNow) {
    ReportingRig rig({{"event_whitelist", Array{5, 6}},
                      {"event_blacklist", Array{6}},
                      {"filters", Array{Dictionary{{"key", "user"}, {"action", "sha256"}},
                                        Dictionary{{"key", "gone"}, {"action", "remove"}, {"method", 5}}}}},
                     true);
    for (const int category : {4, 5, 6})
        rig.send(kPlain, static_cast<uint16_t>(category));
    rig.backend->setUserInfoDict(userInfoWith({{"user", "someone"}, {"gone", "back"}}));
    const LogCapture log;
    rig.http.setHandler(nullptr);
    FlushResult result;
    const auto answer = rig.backend->flushMessagesWithCompletion(into(result));
    EXPECT_EQ(result.calls, 0);
    ASSERT_TRUE(rig.http.complete(lab::FakeHttpClient::response(200)));
    EXPECT_EQ(result.calls, 1);
    ASSERT_TRUE(answer);
    EXPECT_EQ(result.answer, answer);
    EXPECT_EQ(result.error, std::nullopt);

    const auto message = rig.message();
    ASSERT_EQ(message["events"].Size(), 1u);
    const auto& event = message["events"][0];
    EXPECT_EQ(event["_method"].GetInt(), 5);
    EXPECT_EQ(event["user"].GetString(), TelvoraBackend::convertIntoSHA256("someone"));
    EXPECT_STREQ(event["gone"].GetString(), "back");  // the copy is filtered as an event of method 0
    for (const char* dropped : {"4 as it is not whitelisted", "6 as it is blacklisted"})
        EXPECT_TRUE(
            log.contains(std::string("<7>flushMessagesWithCompletion: Dropping event with category ") +
                         dropped + " for backend httpPost"));

    // After a flush that may be logged, the bag is no longer asked.
    rig.country = "FR";
    rig.backend->updateState();
    EXPECT_EQ(rig.backend->state(), kReporting);
}

TEST(HTTPSPostSendTest, HeldEventsTakeTheNewSessionID) {
    const ReportingRig rig({}, true);
    rig.send();  // numbered, being of type 7
    rig.backend->setCorrelatedSessionID("top.own");
    rig.send();
    rig.backend->flushMessagesWithCompletion({});
    const auto message = rig.message();
    EXPECT_STREQ(message["events"][0]["_sessionID"].GetString(), "top.own");
    EXPECT_EQ(message["events"][1]["_sessionID"].GetUint(), 42u);
}

TEST(HTTPSPostSendTest, ABatchDoesNotGrowWithoutBound) {
    const ReportingRig rig;
    rig.backend->setUserInfoDict(nullptr);  // nothing can be flushed
    const Dictionary megabyte{{"inner", std::string(size_t{1} << 20, 'x')}};
    const LogCapture log;
    for (uint16_t category = 0; category < 9; ++category)
        rig.send(kPlain, category, Dictionary{{"big", Array{megabyte}}});
    EXPECT_THAT(log.lines(),
                Contains("<4>HTTPSPostBackend(batchEvent): dropping 7 events that can't be flushed"));
    const ReportTally tally = rig.backend->reports().tally();
    EXPECT_EQ(tally[ReportPlace::batchFull], 7u);
    EXPECT_EQ(tally[ReportPlace::held], 2u);
}

}  // namespace
}  // namespace telvora
