// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora {
namespace {

using test::eventNumbersOf;
using test::HTTPSPostRig;
using test::kNow;
using test::LogCapture;
using test::messageOf;
using test::shared;
using test::userInfoOf;
using testing::Contains;
using testing::ElementsAre;

constexpr SendFlag kPlain{0};
constexpr SendFlag kRealtime{1};
constexpr SendFlag kPromote{2};
constexpr SendFlag kPromoteRealtime{3};
constexpr SendFlag kMeaningless{5};

struct FlushResult {
    int calls = 0;
    std::optional<std::string> answer;
    std::optional<TelvoraError> error;
};

FlushCompletion into(FlushResult& result) {
    return [&result](std::optional<std::string> answer, std::optional<TelvoraError> error) {
        ++result.calls;
        result.answer = std::move(answer);
        result.error = std::move(error);
    };
}

std::vector<int> range(int first, int last) {
    std::vector<int> numbers(static_cast<size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
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
        {"plain", BackendState::reporting, kPlain, false, true, "https://post.example/",
         BackendState::reporting},
        {"batched", BackendState::reporting, kPlain, true, true, nullptr, BackendState::reporting},
        {"realtime", BackendState::reporting, kRealtime, true, true, "https://realtime.example/",
         BackendState::reporting},
        {"no user info", BackendState::reporting, kRealtime, false, false, nullptr, BackendState::reporting},
        {"unknown bit", BackendState::reporting, kMeaningless, true, true, nullptr, BackendState::reporting},
        {"promote in vain", BackendState::reporting, kPromote, false, true, "https://post.example/",
         BackendState::reporting},
        {"sampled out", BackendState::sampledOut, kRealtime, false, true, nullptr, BackendState::sampledOut},
        {"promoted", BackendState::sampledOut, kPromote, false, true, "https://post.example/",
         BackendState::reporting},
        {"promoted realtime", BackendState::sampledOut, kPromoteRealtime, true, true,
         "https://realtime.example/", BackendState::reporting},
        {"not promoted by an unknown bit", BackendState::sampledOut, SendFlag{6}, false, true, nullptr,
         BackendState::sampledOut},
        {"waiting", BackendState::waitingForUserInfo, kPromoteRealtime, false, true, nullptr,
         BackendState::waitingForUserInfo},
        {"disabled", BackendState::disabled, kPromoteRealtime, false, true, nullptr, BackendState::disabled},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        const auto backend = rig.makeReportingBackend();
        backend->setState(c.state);
        backend->setBatchEvents(c.batchEvents);
        if (!c.hasUserInfo) backend->setUserInfoDict(nullptr);
        const auto answer = backend->sendMessage(Dictionary{}, kNow, 5, 6, c.flag);
        EXPECT_EQ(answer.has_value(), c.url != nullptr) << c.what;
        EXPECT_EQ(backend->state(), c.after) << c.what;
        const auto requests = rig.http.requests();
        ASSERT_EQ(requests.size(), c.url != nullptr ? 1u : 0u) << c.what;
        if (c.url != nullptr) {
            EXPECT_EQ(requests[0].url, c.url) << c.what;
        }
    }
}

TEST(HTTPSPostSendTest, UserInfoWinsOverFieldsAndFiltersActLast) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend(
        {{"filters", Array{Dictionary{{"key", "SECRET"}, {"action", "sha256"}, {"method", 5}},
                           Dictionary{{"key", "_build"}, {"action", "remove"}}}}});
    Dictionary userInfo = userInfoOf("app", "network");
    userInfo.merge({{"_sessionID", "mine"}, {"secret", "from user info"}});
    backend->setUserInfoDict(shared(std::move(userInfo)));
    backend->setBuildVersion("B77");
    backend->sendMessage(Dictionary{{"secret", "from payload"}, {"when", Date{12}}, {"box", Array{}}}, kNow,
                         5, 6, kPlain);
    const auto message = messageOf(rig.http.requests().at(0));
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
        HTTPSPostRig rig;
        rig.setConsent(true);
        const auto backend = rig.makeReportingBackend();
        backend->setCompType(c.type);
        backend->setIsInternal(c.internal);
        backend->setCombinedSessionIDString("top.own");
        backend->sendMessage(std::nullopt, kNow, 5, 6, kPlain);
        const auto message = messageOf(rig.http.requests().at(0));
        EXPECT_EQ(message["events"][0]["_sessionID"].IsUint(), c.numbered) << c.type;
        EXPECT_EQ(message["events"][0]["_internal"].GetInt(), 0);  // the device's build, not the session's
    }
}

TEST(HTTPSPostSendTest, TheStopReportTellsHowItWasSampled) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    const LogCapture log;
    backend->sendMessage(Dictionary{{"Batch", "client's"}}, kNow, 0, 1, kPlain);
    backend->sendMessage(std::nullopt, kNow, 0, 1, kPlain);
    backend->sendMessage(Dictionary{}, kNow, 0, 2, kPlain);
    const auto requests = rig.http.requests();
    ASSERT_EQ(requests.size(), 3u);
    const auto message = messageOf(requests[0]);
    const auto& event = message["events"][0];
    EXPECT_EQ(event["Opt"].GetInt(), 0);
    EXPECT_EQ(event["SamplingThreshold"].GetDouble(), 0.5);
    EXPECT_EQ(event["OverrideSampling"].GetInt(), -1);
    EXPECT_EQ(event["Batch"].GetInt(), 0);
    for (const size_t other : {size_t{1}, size_t{2}})
        EXPECT_FALSE(messageOf(requests[other])["events"][0].HasMember("Opt")) << other;
    EXPECT_EQ(log.count("<3>HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil"), 1u);
    EXPECT_EQ(log.count("<7>HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to "
                        "SESSION_TYPE_STOP message dictionary"),
              2u);
}

TEST(HTTPSPostSendTest, ThresholdFlushesEveryMethod) {
    const struct {
        int threshold;
        int sent;
        std::vector<std::vector<int>> posts;
    } cases[] = {
        {49, 50, {}},
        {49, 51, {range(1, 51)}},  // with the one event of another method
        {0, 5, {{1, 2}, {3}, {4}, {5}}},
        {-1, 2, {{1}, {2}}},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        const auto backend = rig.makeReportingBackend({{"event_threshold", c.threshold}});
        backend->setBatchEvents(true);
        const LogCapture log;
        backend->sendMessage(Dictionary{}, kNow, 8, 6, kPlain);
        for (int i = 0; i < c.sent; ++i)
            backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
        std::vector<std::vector<int>> posts;
        for (const HttpRequest& request : rig.http.requests())
            posts.push_back(eventNumbersOf(request));
        EXPECT_EQ(posts, c.posts) << c.threshold;
        EXPECT_EQ(
            log.contains("<7>HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event "
                         "threshold for method 5"),
            !c.posts.empty());
    }
}

TEST(HTTPSPostSendTest, RealtimeKeepsTheOrder) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setBatchEvents(true);
    backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
    backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
    const auto answer = backend->sendMessage(Dictionary{}, kNow, 5, 6, kRealtime);
    const auto requests = rig.http.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].url, "https://post.example/");
    EXPECT_THAT(eventNumbersOf(requests[0]), ElementsAre(1, 2));
    EXPECT_EQ(requests[1].url, "https://realtime.example/");
    EXPECT_THAT(eventNumbersOf(requests[1]), ElementsAre(3));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->rfind("Flushed events:\n{\n", 0), 0u);
    EXPECT_NE(answer->find("\n}\nStandalone event:\n{\n"), std::string::npos);
    EXPECT_EQ(answer->back(), '}');

    backend->setState(BackendState::disabled);
    backend->updateState();  // no longer asks the bag
    EXPECT_EQ(backend->state(), BackendState::disabled);
}

TEST(HTTPSPostSendTest, FlushTellsWhyNothingWasSent) {
    const struct {
        const char* what;
        BackendState state;
        bool hasEvent;
        bool hasUserInfo;
        Dictionary client;
        const char* error;
        bool keepsBatch;
    } cases[] = {
        {"empty", BackendState::reporting, false, true, {}, "Nothing to flush", false},
        {"sampled out", BackendState::sampledOut, true, true, {}, "Nothing to flush", false},
        {"waiting", BackendState::waitingForUserInfo, true, true, {}, "Nothing to flush", false},
        {"no user info",
         BackendState::reporting,
         true,
         false,
         {},
         "Can not flush: userInfo is required",
         true},
        {"not white",
         BackendState::reporting,
         true,
         true,
         {{"event_whitelist", Array{}}},
         "Nothing to flush: batched events were completely filtered out",
         false},
        {"black",
         BackendState::reporting,
         true,
         true,
         {{"event_blacklist", Array{5}}},
         "Nothing to flush: batched events were completely filtered out",
         false},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        const auto backend = rig.makeReportingBackend(c.client);
        backend->setBatchEvents(true);
        if (c.hasEvent) backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
        backend->setState(c.state);
        const auto userInfo = shared(userInfoOf("app", "network"));
        if (!c.hasUserInfo) backend->setUserInfoDict(nullptr);
        FlushResult result;
        EXPECT_EQ(backend->flushMessagesWithCompletion(into(result)), std::nullopt) << c.what;
        EXPECT_EQ(result.calls, 1) << c.what;
        EXPECT_EQ(result.answer, std::nullopt) << c.what;
        EXPECT_EQ(result.error, (TelvoraError{kTelvoraErrorDomain, -1, c.error})) << c.what;
        EXPECT_EQ(rig.http.requestCount(), 0u) << c.what;

        backend->setState(BackendState::reporting);
        backend->setUserInfoDict(userInfo);
        backend->flushMessagesWithCompletion({});
        EXPECT_EQ(rig.http.requestCount(), c.keepsBatch ? 1u : 0u) << c.what;
    }
}

TEST(HTTPSPostSendTest, FlushTakesWhatTheListsAdmitWithTheUserInfoOfNow) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend(
        {{"event_whitelist", Array{5, 6}},
         {"event_blacklist", Array{6}},
         {"filters", Array{Dictionary{{"key", "user"}, {"action", "sha256"}},
                           Dictionary{{"key", "gone"}, {"action", "remove"}, {"method", 5}}}}});
    backend->setBatchEvents(true);
    for (const uint16_t method : {uint16_t{4}, uint16_t{5}, uint16_t{6}})
        backend->sendMessage(Dictionary{}, kNow, method, 6, kPlain);
    Dictionary userInfo = userInfoOf("app", "network");
    userInfo.merge({{"user", "someone"}, {"gone", "back"}});
    backend->setUserInfoDict(shared(std::move(userInfo)));
    const LogCapture log;
    rig.http.setHandler(nullptr);
    FlushResult result;
    const auto answer = backend->flushMessagesWithCompletion(into(result));
    EXPECT_EQ(result.calls, 0);
    ASSERT_TRUE(rig.http.complete(test::FakeHttpClient::response(200)));
    EXPECT_EQ(result.calls, 1);
    ASSERT_TRUE(answer);
    EXPECT_EQ(result.answer, answer);
    EXPECT_EQ(result.error, std::nullopt);

    const auto message = messageOf(rig.http.requests().at(0));
    ASSERT_EQ(message["events"].Size(), 1u);
    const auto& event = message["events"][0];
    EXPECT_EQ(event["_method"].GetInt(), 5);
    EXPECT_EQ(event["user"].GetString(), TelvoraBackend::convertIntoSHA256("someone"));
    EXPECT_STREQ(event["gone"].GetString(), "back");  // the copy is filtered as an event of method 0
    EXPECT_TRUE(
        log.contains("<7>flushMessagesWithCompletion: Dropping event with category 4 as it is not "
                     "whitelisted for backend httpPost"));
    EXPECT_TRUE(
        log.contains("<7>flushMessagesWithCompletion: Dropping event with category 6 as it is "
                     "blacklisted for backend httpPost"));
}

TEST(HTTPSPostSendTest, HeldEventsTakeTheNewSessionID) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setBatchEvents(true);
    backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);  // numbered, being of type 7
    backend->setCorrelatedSessionID("top.own");
    backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
    backend->flushMessagesWithCompletion({});
    const auto message = messageOf(rig.http.requests().at(0));
    EXPECT_STREQ(message["events"][0]["_sessionID"].GetString(), "top.own");
    EXPECT_EQ(message["events"][1]["_sessionID"].GetUint(), 42u);
}

TEST(HTTPSPostSendTest, ABatchDoesNotGrowWithoutBound) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setUserInfoDict(nullptr);  // nothing can be flushed
    const std::string megabyte(size_t{1} << 20, 'x');
    const LogCapture log;
    for (uint16_t method = 0; method < 9; ++method)
        backend->sendMessage(Dictionary{{"big", Array{Dictionary{{"inner", megabyte}}}}}, kNow, method, 6,
                             kPlain);
    EXPECT_THAT(log.lines(),
                Contains("<4>HTTPSPostBackend(batchEvent): dropping 7 events that can't be flushed"));
}

}  // namespace
}  // namespace telvora
