// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <malloc.h>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::StartsWith;
using Posts = std::vector<std::vector<int64_t>>;

std::shared_ptr<const Dictionary> userInfoWith(const Dictionary& more) {
    Dictionary userInfo = userInfoOf("app", "network");
    userInfo.merge(more);
    return shared(std::move(userInfo));
}

uint64_t tallyOf(const TelvoraBackend& backend, ReportOutcome outcome) {
    return backend.reports().tally()[outcome];
}

// Backends whose reports count against the quotas of one user.
struct QuotaRig : HTTPSPostRig {
    BackendIdentity counted(BackendIdentity backend) {
        backend.accounts = std::make_shared<ClientAccounts>(ledger, quotas.of(1));
        return backend;
    }
    uint64_t held(Quota quota) { return quotas.uses().at(1)[static_cast<size_t>(quota)].held; }

    UserQuotas quotas{defaults};
    ReportLedger ledger;
};

TEST(HTTPSPostSendTest, StateFlagAndSettingsDecideOnPostingAtOnce) {
    const std::tuple<const char*, BackendState, SendFlag, bool, bool, Urls, BackendState> cases[] = {
        {"plain", kReporting, kPlain, false, true, {kPost}, kReporting},
        {"batched", kReporting, kPlain, true, true, {}, kReporting},
        {"realtime", kReporting, kRealtime, true, true, {kRealtimePost}, kReporting},
        {"no user info", kReporting, kRealtime, false, false, {}, kReporting},
        {"unknown bit", kReporting, SendFlag{5}, true, true, {}, kReporting},
        {"promote in vain", kReporting, kPromote, false, true, {kPost}, kReporting},
        {"sampled out", kSampledOut, kRealtime, false, true, {}, kSampledOut},
        {"promoted", kSampledOut, kPromote, false, true, {kPost}, kReporting},
        {"promoted realtime", kSampledOut, kPromoteRealtime, true, true, {kRealtimePost}, kReporting},
        {"not promoted by an unknown bit", kSampledOut, SendFlag{6}, false, true, {}, kSampledOut},
        {"waiting", kWaiting, kPromoteRealtime, false, true, {}, kWaiting},
        {"disabled", kDisabled, kPromoteRealtime, false, true, {}, kDisabled}};
    for (const auto& [what, state, flag, batchEvents, hasUserInfo, urls, after] : cases) {
        SCOPED_TRACE(what);
        const ReportingRig rig({}, batchEvents ? batching() : identityOf(7));
        rig.backend->setState(state);
        if (!hasUserInfo) rig.backend->setUserInfoDict(nullptr);
        EXPECT_EQ(rig.send(flag).has_value(), !urls.empty());
        EXPECT_EQ(rig.backend->state(), after);
        EXPECT_EQ(rig.urls(), urls);
    }
}

TEST(HTTPSPostSendTest, UserInfoWinsOverFieldsAndFiltersActLast) {
    const ReportingRig rig(
        {{"filters", Array{Dictionary{{"key", "SECRET"}, {"action", "sha256"}, {"method", 5}},
                           Dictionary{{"key", "_build"}, {"action", "remove"}}}}},
        identityOf(7, "Model1,1", "B77"));
    rig.backend->setUserInfoDict(userInfoWith({{"_sessionID", "mine"}, {"secret", "from user info"}}));
    rig.send(kPlain, 5, Dictionary{{"secret", "from payload"}, {"when", Date{12}}, {"box", Array{}}});
    EXPECT_EQ(rig.message().postTime, 1447660800.25);
    const Dictionary event = rig.event();
    EXPECT_EQ(event, Dictionary::merged(event, {{"_sessionID", "mine"},
                                                {"secret", convertIntoSHA256("from user info")},
                                                {"when", 12.0},
                                                {"_startTS", 1447660800},
                                                {"_timezoneOffset", 3600}}));
    EXPECT_FALSE(event.contains("_build") || event.contains("box"));
}

TEST(HTTPSPostSendTest, SessionsAreNumberedForSomeClientTypes) {
    const std::tuple<int32_t, bool, PropertyList> cases[] = {
        {7, false, 42}, {11, false, "top.own"}, {11, true, 42}, {13, true, 42}, {12, true, "top.own"}};
    for (const auto& [type, internal, sessionID] : cases) {
        BackendIdentity identity = identityOf(type);
        identity.isInternal = internal;
        const ReportingRig rig({}, identity);
        rig.backend->setCombinedSessionIDString("top.own");
        rig.send();
        EXPECT_EQ(*rig.event().find("_sessionID"), sessionID) << type;
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
    EXPECT_EQ(event,
              Dictionary::merged(
                  event, {{"Opt", 0}, {"SamplingThreshold", 0.5}, {"OverrideSampling", -1}, {"Batch", 0}}));
    EXPECT_FALSE(rig.event(1).contains("Opt") || rig.event(2).contains("Opt"));
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
    const std::tuple<int, int, Posts> cases[] = {
        {3, 4, {}},
        {3, 5, {{1, 2, 3, 4, 5}}},  // with the one event of another method
        {0, 5, {{1, 2}, {3}, {4}, {5}}},
        {-1, 2, {{1}, {2}}}};
    for (const auto& [threshold, sent, posts] : cases) {
        const ReportingRig rig({{"event_threshold", threshold}}, batching());
        const LogCapture log;
        rig.send(kPlain, 8);
        for (int i = 0; i < sent; ++i)
            rig.send();
        EXPECT_EQ(rig.posts(), posts) << threshold;
        EXPECT_EQ(
            log.contains("<7>HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event "
                         "threshold for method 5"),
            !posts.empty());
    }
}

TEST(HTTPSPostSendTest, RealtimeKeepsTheOrder) {
    const ReportingRig rig({}, batching());
    rig.send();
    rig.send();
    const auto answer = rig.send(kRealtime);
    EXPECT_EQ(rig.posts(), (Posts{{1, 2}, {3}}));
    EXPECT_EQ(rig.urls(), (Urls{kPost, kRealtimePost}));
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
    const std::tuple<BackendState, bool, bool, Dictionary, std::string, ReportOutcome> cases[] = {
        {kReporting, false, true, {}, nothing, ReportOutcome::held},
        {kSampledOut, true, true, {}, nothing, ReportOutcome::sampledOut},
        {kWaiting, true, true, {}, nothing, ReportOutcome::noUserInfo},
        {kDisabled, true, true, {}, nothing, ReportOutcome::disabled},
        {kReporting, true, false, {}, "Can not flush: userInfo is required", ReportOutcome::held},
        {kReporting, true, true, {{"event_whitelist", Array{}}}, filtered, ReportOutcome::notWhitelisted},
        {kReporting, true, true, {{"event_blacklist", Array{5}}}, filtered, ReportOutcome::blacklisted}};
    for (const auto& [state, hasEvent, hasUserInfo, client, error, outcome] : cases) {
        SCOPED_TRACE(error + " " + nameOf(outcome));
        const ReportingRig rig(client, batching());
        if (hasEvent) rig.send();
        rig.backend->setState(state);
        if (!hasUserInfo) rig.backend->setUserInfoDict(nullptr);
        EXPECT_EQ(flush(*rig.backend), Flushed(std::nullopt, makeTelvoraError(error, -1)));
        EXPECT_EQ(rig.http.requestCount(), 0u);
        const ReportTally tally = rig.backend->reports().tally();
        EXPECT_EQ(tally[outcome], hasEvent ? 1u : 0u);

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
    const auto& [answer, error] = flush(*rig.backend);
    EXPECT_TRUE(answer && !error);
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
    QuotaRig rig;
    rig.setDefault("maxPendingBytesPerUser", 1 << 20);
    const auto backend = rig.makeReportingBackend({}, rig.counted(batching()));
    for (const auto& [bytes, delivered, lost] : {std::tuple{10'000, 20u, 0u}, {100'000, 20u, 20u}}) {
        backend->setUserInfoDict(userInfoWith({}));
        for (int i = 0; i < 20; ++i)
            backend->sendMessage(Dictionary(), kNow, 5, 6, kPlain);
        backend->setUserInfoDict(userInfoWith({{"big", std::string(bytes, 'x')}}));
        const auto over = makeTelvoraError("Can not flush: over quota", -1);
        EXPECT_EQ(flush(*backend).second, lost > 0 ? std::optional(over) : std::nullopt);
        EXPECT_EQ(tallyOf(*backend, ReportOutcome::delivered), delivered);
        EXPECT_EQ(tallyOf(*backend, ReportOutcome::overQuota), lost);
        EXPECT_EQ(rig.held(Quota::pendingBytes), 0u);
    }
}

TEST(HTTPSPostSendTest, OnlyReportsThatLeaveUseUpTheDay) {
    QuotaRig rig;
    rig.setDefault("maxReportsPerUserPerDay", 3);
    const auto direct = rig.makeReportingBackend({}, rig.counted(identityOf(7)));
    const auto batch = rig.makeReportingBackend({}, rig.counted(batching()));
    const auto send = [](const auto& backend, int times) {
        for (int i = 0; i < times; ++i)
            backend->sendMessage(Dictionary(), kNow, 5, 6, kPlain);
    };
    send(batch, 4);
    send(direct, 2);
    EXPECT_EQ(rig.held(Quota::reportsToday), 2u);
    flush(*batch);
    send(direct, 1);
    EXPECT_EQ(tallyOf(*batch, ReportOutcome::delivered), 1u);
    EXPECT_EQ(tallyOf(*batch, ReportOutcome::overDailyQuota), 3u);
    EXPECT_EQ(tallyOf(*direct, ReportOutcome::delivered), 2u);
    EXPECT_EQ(tallyOf(*direct, ReportOutcome::overDailyQuota), 1u);
    EXPECT_EQ(rig.held(Quota::pendingBytes), 0u);
}

#ifndef TELVORA_SANITIZED
TEST(HTTPSPostSendTest, ABatchOccupiesNoMoreMemoryThanItIsChargedFor) {
    constexpr int kReports = 200;
    Dictionary thinned, small;
    Array filters;
    for (int i = 0; i < 100; ++i) {
        thinned.set("secret" + std::to_string(i), i);
        small.set(std::to_string(i), true);
        filters.push_back(Dictionary{{"key", "secret" + std::to_string(i)}, {"action", "remove"}});
    }
    const Dictionary text{{"key of sixteen c", std::string(16, 'x')}};
    for (const auto& [payload, combinedID] :
         {std::pair{thinned, 0}, {small, 0}, {text, 0}, {Dictionary(), 20'000}}) {
        QuotaRig rig;
        const auto backend = rig.makeReportingBackend({{"filters", filters}, {"event_threshold", 1000}},
                                                      rig.counted(batching()));
        const auto before = mallinfo2();
        for (int i = 0; i < kReports; ++i)
            backend->sendMessage(payload, kNow, 5, 6, kPlain);
        backend->setCorrelatedSessionID(std::string(static_cast<size_t>(combinedID), 'x'));
        const auto after = mallinfo2();
        EXPECT_EQ(tallyOf(*backend, ReportOutcome::held), kReports);
        const size_t resident = after.uordblks + after.hblkhd - before.uordblks - before.hblkhd;
        EXPECT_LE(resident, rig.held(Quota::pendingBytes) * 11 / 10 + 10'000) << payload.size();
    }
}
#endif

TEST(HTTPSPostSendTest, ABatchThatWouldBeThrownAwayTakesNoRoomFromReportsThatLeave) {
    QuotaRig rig;
    rig.setDefault("maxPendingBytesPerUser", 200'000);
    rig.setDefault("maxDormantBytesPerUser", 100'000);
    const Dictionary changes{{"override_sampling", 1.0}, {"event_threshold", 1000}};
    const auto reporting = rig.makeReportingBackend(changes, rig.counted(identityOf(7)));
    rig.random = 0.9;
    const auto sampledOut = rig.makeBackend({reportingClient(changes)}, rig.counted(batching()));
    sampledOut->updateState();
    ASSERT_EQ(sampledOut->state(), kSampledOut);

    for (const auto& backend : {sampledOut, reporting})
        for (int i = 0; i < 100; ++i)
            backend->sendMessage(Dictionary{{"text", std::string(10'000, 'x')}}, kNow, 5, 6, kPlain);
    EXPECT_EQ(rig.held(Quota::pendingBytes), 0u);
    const uint64_t heldReports = tallyOf(*sampledOut, ReportOutcome::held);
    EXPECT_GT(heldReports, 5u);
    EXPECT_EQ(tallyOf(*sampledOut, ReportOutcome::overQuota), 100 - heldReports);
    EXPECT_EQ(tallyOf(*reporting, ReportOutcome::delivered), 100u);

    // After a promotion it is charged as pending, and is posted.
    const uint64_t dormant = rig.held(Quota::dormantBytes);
    EXPECT_GT(dormant, 50'000u);
    sampledOut->sendMessage(Dictionary(), kNow, 5, 6, kPromote);
    EXPECT_EQ(rig.held(Quota::dormantBytes), 0u);
    EXPECT_GT(rig.held(Quota::pendingBytes), dormant);
    // A parent session or a server changes the state, too.
    for (const BackendState state : {kDisabled, kReporting, kSampledOut, kReporting}) {
        if (!sampledOut->followState(state)) sampledOut->setState(state);
        const bool leaves = state == kReporting;
        EXPECT_EQ(rig.held(leaves ? Quota::dormantBytes : Quota::pendingBytes), 0u);
    }
    flush(*sampledOut);
    EXPECT_EQ(tallyOf(*sampledOut, ReportOutcome::delivered), heldReports + 1);
    EXPECT_EQ(rig.held(Quota::pendingBytes), 0u);
}

}  // namespace
}  // namespace telvora::test
