// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::StartsWith;
using Posts = std::vector<std::vector<int64_t>>;

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
        SCOPED_TRACE(c.what);
        const ReportingRig rig({}, c.batchEvents ? batching() : identityOf(7));
        rig.backend->setState(c.state);
        if (!c.hasUserInfo) rig.backend->setUserInfoDict(nullptr);
        EXPECT_EQ(rig.send(c.flag).has_value(), c.url != nullptr);
        EXPECT_EQ(rig.backend->state(), c.after);
        ASSERT_EQ(rig.http.requestCount(), c.url != nullptr ? 1u : 0u);
        if (c.url != nullptr) {
            EXPECT_EQ(rig.http.requests()[0].url, c.url);
        }
    }
}

TEST(HTTPSPostSendTest, UserInfoWinsOverFieldsAndFiltersActLast) {
    BackendIdentity identity = identityOf(7);
    identity.buildVersion = "B77";
    const ReportingRig rig(
        {{"filters", Array{Dictionary{{"key", "SECRET"}, {"action", "sha256"}, {"method", 5}},
                           Dictionary{{"key", "_build"}, {"action", "remove"}}}}},
        identity);
    rig.backend->setUserInfoDict(userInfoWith({{"_sessionID", "mine"}, {"secret", "from user info"}}));
    rig.send(kPlain, 5, Dictionary{{"secret", "from payload"}, {"when", Date{12}}, {"box", Array{}}});
    EXPECT_EQ(rig.message().postTime, 1447660800.25);
    const Dictionary event = rig.event();
    EXPECT_EQ(*event.string("_sessionID"), "mine");
    EXPECT_EQ(*event.string("secret"), convertIntoSHA256("from user info"));
    EXPECT_EQ(event.real("when"), 12.0);
    EXPECT_EQ(event.integer("_startTS"), 1447660800);
    EXPECT_EQ(event.integer("_timezoneOffset"), 3600);
    for (const char* gone : {"_build", "box"})
        EXPECT_FALSE(event.contains(gone)) << gone;
}

TEST(HTTPSPostSendTest, SessionsAreNumberedForSomeClientTypes) {
    const struct {
        int32_t type;
        bool internal;
        PropertyList sessionID;
    } cases[] = {
        {7, false, 42}, {11, false, "top.own"}, {11, true, 42}, {13, true, 42}, {12, true, "top.own"}};
    for (const auto& c : cases) {
        BackendIdentity identity = identityOf(c.type);
        identity.isInternal = c.internal;
        const ReportingRig rig({}, identity);
        rig.backend->setCombinedSessionIDString("top.own");
        rig.send();
        EXPECT_EQ(*rig.event().find("_sessionID"), c.sessionID) << c.type;
        EXPECT_EQ(rig.event().integer("_internal"), 0);  // the device's build, not the session's
    }
}

TEST(HTTPSPostSendTest, TheStopReportHasTheSampling) {
    const ReportingRig rig;
    const LogCapture log;
    rig.backend->sendMessage(Dictionary{{"Batch", "client's"}}, kNow, 0, 1, kPlain);
    rig.backend->sendMessage(std::nullopt, kNow, 0, 1, kPlain);
    rig.backend->sendMessage(Dictionary{}, kNow, 0, 2, kPlain);
    const Dictionary event = rig.event();
    EXPECT_EQ(event.integer("Opt"), 0);
    EXPECT_EQ(event.real("SamplingThreshold"), 0.5);
    EXPECT_EQ(event.integer("OverrideSampling"), -1);
    EXPECT_EQ(event.integer("Batch"), 0);
    for (const size_t other : {size_t{1}, size_t{2}})
        EXPECT_FALSE(rig.event(other).contains("Opt")) << other;
    EXPECT_EQ(log.count("<3>HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil"), 1u);
    EXPECT_EQ(log.count("<7>HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to "
                        "SESSION_TYPE_STOP message dictionary"),
              2u);
    for (const bool consent : {false, true}) {
        HTTPSPostRig overriding;
        overriding.setConsent(consent);
        overriding.makeReportingBackend({{"override_dnu", 1}})->sendMessage(Dictionary{}, kNow, 0, 1, kPlain);
        EXPECT_EQ(messageOf(overriding.http.requests().at(0)).events->at(0).integer("Opt"), consent ? 2 : 1);
    }
}

TEST(HTTPSPostSendTest, ThresholdFlushesEveryMethod) {
    const struct {
        int threshold;
        int sent;
        Posts posts;
    } cases[] = {
        {3, 4, {}},
        {3, 5, {{1, 2, 3, 4, 5}}},  // with the one event of another method
        {0, 5, {{1, 2}, {3}, {4}, {5}}},
        {-1, 2, {{1}, {2}}},
    };
    for (const auto& c : cases) {
        const ReportingRig rig({{"event_threshold", c.threshold}}, batching());
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
    const ReportingRig rig({}, batching());
    rig.send();
    rig.send();
    const auto answer = rig.send(kRealtime);
    EXPECT_EQ(rig.posts(), (Posts{{1, 2}, {3}}));
    EXPECT_EQ(rig.http.requests()[0].url, kPost);
    EXPECT_EQ(rig.http.requests()[1].url, kRealtimePost);
    EXPECT_THAT(*answer, StartsWith("Flushed events:\n{\n"));
    EXPECT_THAT(*answer, testing::HasSubstr("\n}\nStandalone event:\n{\n"));

    // From then on the bag is not asked, even if the answer may not be logged.
    ReportingRig unlogged({{"override_dnu", 1}}, batching());
    unlogged.send();
    unlogged.send(kRealtime);
    unlogged.country = "FR";
    unlogged.backend->updateState();
    EXPECT_EQ(unlogged.backend->state(), kReporting);
}

TEST(HTTPSPostSendTest, AFlushThatPostsNoEventHasAnError) {
    const std::string nothing = "Nothing to flush";
    const std::string filtered = "Nothing to flush: batched events were completely filtered out";
    const struct {
        BackendState state;
        bool hasEvent;
        bool hasUserInfo;
        Dictionary client;
        std::string error;
        ReportOutcome outcome;
    } cases[] = {
        {kReporting, false, true, {}, nothing, ReportOutcome::held},
        {kSampledOut, true, true, {}, nothing, ReportOutcome::sampledOut},
        {kWaiting, true, true, {}, nothing, ReportOutcome::noUserInfo},
        {kDisabled, true, true, {}, nothing, ReportOutcome::disabled},
        {kReporting, true, false, {}, "Can not flush: userInfo is required", ReportOutcome::held},
        {kReporting, true, true, {{"event_whitelist", Array{}}}, filtered, ReportOutcome::notWhitelisted},
        {kReporting, true, true, {{"event_blacklist", Array{5}}}, filtered, ReportOutcome::blacklisted},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error + " " + nameOf(c.outcome));
        const ReportingRig rig(c.client, batching());
        if (c.hasEvent) rig.send();
        rig.backend->setState(c.state);
        if (!c.hasUserInfo) rig.backend->setUserInfoDict(nullptr);
        FlushResult result;
        EXPECT_EQ(rig.backend->flushMessagesWithCompletion(into(result)), std::nullopt);
        EXPECT_EQ(result.calls, 1);
        EXPECT_EQ(result.answer, std::nullopt);
        EXPECT_EQ(result.error, makeTelvoraError(c.error, -1));
        EXPECT_EQ(rig.http.requestCount(), 0u);
        const ReportTally tally = rig.backend->reports().tally();
        EXPECT_EQ(tally[c.outcome], c.hasEvent ? 1u : 0u);

        // Kept events are posted by the next flush.
        rig.backend->setState(kReporting);
        rig.backend->setUserInfoDict(userInfoWith({}));
        rig.backend->flushMessagesWithCompletion({});
        EXPECT_EQ(rig.http.requestCount(), tally[ReportOutcome::held]);
    }
}

TEST(HTTPSPostSendTest, FlushPostsAdmittedEventsWithTheCurrentUserInfo) {
    ReportingRig rig({{"event_whitelist", Array{5, 6}},
                      {"event_blacklist", Array{6}},
                      {"filters", Array{Dictionary{{"key", "user"}, {"action", "sha256"}},
                                        Dictionary{{"key", "gone"}, {"action", "remove"}, {"method", 5}}}}},
                     batching());
    for (const uint16_t category : {4, 5, 6})
        rig.send(kPlain, category);
    rig.backend->setUserInfoDict(userInfoWith({{"user", "someone"}, {"gone", "back"}}));
    const LogCapture log;
    rig.http.setHandler(nullptr);
    FlushResult result;
    const auto answer = rig.backend->flushMessagesWithCompletion(into(result));
    EXPECT_EQ(result.calls, 0);
    ASSERT_TRUE(rig.http.complete(FakeHttpClient::response(200)));
    EXPECT_EQ(result.calls, 1);
    ASSERT_TRUE(answer);
    EXPECT_EQ(result.answer, answer);
    EXPECT_EQ(result.error, std::nullopt);

    EXPECT_EQ(rig.posts(), (Posts{{2}}));
    EXPECT_EQ(*rig.event().string("user"), convertIntoSHA256("someone"));
    EXPECT_EQ(*rig.event().string("gone"), "back");  // the copy is filtered as an event of method 0
    for (const char* dropped : {"4 as it is not whitelisted", "6 as it is blacklisted"})
        EXPECT_TRUE(
            log.contains(std::string("<7>flushMessagesWithCompletion: Dropping event with category ") +
                         dropped + " for backend httpPost"));

    // After a flush that may be logged, the bag is no longer asked.
    rig.country = "FR";
    rig.backend->updateState();
    EXPECT_EQ(rig.backend->state(), kReporting);
}

TEST(HTTPSPostSendTest, ABatchDoesNotGrowWithoutBound) {
    const ReportingRig rig;
    rig.backend->setUserInfoDict(nullptr);  // prevents a flush
    const Dictionary megabyte{{"inner", std::string(size_t{1} << 20, 'x')}};
    const LogCapture log;
    for (uint16_t category = 0; category < 9; ++category)
        rig.send(kPlain, category, Dictionary{{"big", Array{megabyte}}});
    EXPECT_THAT(log.lines(),
                Contains("<4>HTTPSPostBackend(batchEvent): dropping 7 events that can't be flushed"));
    const ReportTally tally = rig.backend->reports().tally();
    EXPECT_EQ(tally[ReportOutcome::batchFull], 7u);
    EXPECT_EQ(tally[ReportOutcome::held], 2u);
    EXPECT_EQ(failedOrPending(tally), 9u);
}

TEST(HTTPSPostSendTest, AUserInfoThatHasGrownCountsForEachReportThatIsHeld) {
    const TemporaryDirectory directory;
    UserDefaults defaults(directory.path() / "config", directory.path() / "state");
    ASSERT_TRUE(defaults.set(kTelvoraDefaultsDomain, "maxPendingBytesPerUser", 1 << 20));
    UserQuotas quotas(defaults);
    ReportLedger ledger;
    BackendIdentity identity = batching();
    identity.accounts = std::make_shared<ClientAccounts>(ledger, quotas.of(1000));
    const ReportingRig rig({}, identity);
    const ReportAccount& account = rig.backend->reports();
    for (const auto& [bytes, delivered, lost] : {std::tuple{10'000, 20u, 0u}, {100'000, 20u, 20u}}) {
        rig.backend->setUserInfoDict(userInfoWith({}));
        for (int i = 0; i < 20; ++i)
            rig.send();
        rig.backend->setUserInfoDict(userInfoWith({{"big", std::string(bytes, 'x')}}));
        FlushResult result;
        rig.backend->flushMessagesWithCompletion(into(result));
        EXPECT_EQ(result.calls, 1);
        const auto over = makeTelvoraError("Can not flush: over quota", -1);
        EXPECT_EQ(result.error, lost > 0 ? std::optional(over) : std::nullopt);
        EXPECT_EQ(account.tally()[ReportOutcome::delivered], delivered);
        EXPECT_EQ(account.tally()[ReportOutcome::overQuota], lost);
        EXPECT_EQ(quotas.uses().at(1000)[static_cast<size_t>(Quota::pendingBytes)].held, 0u);
    }
}

TEST(HTTPSPostSendTest, ABatchThatWouldBeThrownAwayTakesNoRoomFromReportsThatLeave) {
    HTTPSPostRig rig;
    rig.setDefault("maxPendingBytesPerUser", 200'000);
    rig.setDefault("maxDormantBytesPerUser", 100'000);
    UserQuotas quotas(rig.defaults);
    const auto held = [&](Quota quota) { return quotas.uses().at(1)[static_cast<size_t>(quota)].held; };
    const auto lost = [](const TelvoraBackend& backend) {
        return backend.reports().tally()[ReportOutcome::overQuota];
    };
    const Dictionary large{{"text", std::string(10'000, 'x')}};
    const Dictionary changes{{"override_sampling", 1.0}, {"event_threshold", 1000}};
    ReportLedger ledger;
    const auto identity = [&](BackendIdentity of) {
        of.accounts = std::make_shared<ClientAccounts>(ledger, quotas.of(1));
        return of;
    };
    const auto reporting = rig.makeReportingBackend(changes, identity(identityOf(7)));
    rig.random = 0.9;
    const auto sampledOut = rig.makeBackend({reportingClient(changes)}, identity(batching()));
    sampledOut->updateState();
    ASSERT_EQ(sampledOut->state(), kSampledOut);

    for (int i = 0; i < 100; ++i)
        sampledOut->sendMessage(large, kNow, 5, 6, kPlain);
    EXPECT_EQ(held(Quota::pendingBytes), 0u);
    const size_t heldReports = sampledOut->reports().tally()[ReportOutcome::held];
    EXPECT_GT(heldReports, 5u);
    EXPECT_EQ(lost(*sampledOut), 100 - heldReports);
    for (int i = 0; i < 100; ++i)
        reporting->sendMessage(large, kNow, 5, 6, kPlain);
    EXPECT_EQ(lost(*reporting), 0u);
    EXPECT_EQ(rig.http.requestCount(), 100u);

    // After a promotion it is charged as pending, and is posted.
    const uint64_t dormant = held(Quota::dormantBytes);
    EXPECT_GT(dormant, 50'000u);
    sampledOut->sendMessage(Dictionary(), kNow, 5, 6, kPromote);
    EXPECT_EQ(held(Quota::dormantBytes), 0u);
    EXPECT_GT(held(Quota::pendingBytes), dormant);
    // A parent session or a server changes the state, too.
    for (const BackendState state : {kDisabled, kReporting, kSampledOut, kReporting}) {
        if (!sampledOut->followState(state)) sampledOut->setState(state);
        const bool leaves = state == kReporting;
        EXPECT_EQ(held(leaves ? Quota::dormantBytes : Quota::pendingBytes), 0u);
    }
    sampledOut->flushMessagesWithCompletion({});
    EXPECT_EQ(sampledOut->reports().tally()[ReportOutcome::delivered], heldReports + 1);
    EXPECT_EQ(held(Quota::pendingBytes), 0u);
}

}  // namespace
}  // namespace telvora::test
