// SPDX-License-Identifier: Apache-2.0
#include "access/user_quotas.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using Lines = std::vector<std::string>;

class UserQuotasTest : public testing::Test {
  protected:
    void limit(Quota quota, int64_t limit) {
        ASSERT_TRUE(defaults_.set(kTelvoraDefaultsDomain, ruleOf(quota).setting.key, limit));
    }
    QuotaUse use(uid_t user, Quota quota) { return quotas_.uses().at(user)[static_cast<size_t>(quota)]; }

    const test::TemporaryDirectory directory_;
    UserDefaults defaults_{directory_.path() / "config", directory_.path() / "state"};
    std::chrono::steady_clock::time_point now_{};
    UserQuotas quotas_{defaults_, [this] { return now_; }};
    test::LogCapture log_;
};

TEST_F(UserQuotasTest, EachUserHasItsOwnAndGivesBackWhatItLetsGo) {
    const std::tuple<Quota, std::string, const char*> cases[] = {
        {Quota::connections, "connections", "maxConnectionsPerUser"},
        {Quota::sessions, "sessions", "maxSessionsPerUser"},
        {Quota::pendingBytes, "pendingBytes", "maxPendingBytesPerUser"},
        {Quota::dormantBytes, "dormantBytes", "maxDormantBytesPerUser"},
        {Quota::extensionTokens, "extensionTokens", "maxExtensionTokensPerUser"}};
    const std::string isOver = "<3>UserQuotas: user 1 is over the quota of ";
    Lines expected;
    for (const auto& [quota, name, key] : cases) {
        SCOPED_TRACE(name);
        const std::string ofKey = " " + name + " (" + key + ")";
        const std::string wasOver = "<3>UserQuotas: user 1 was over the quota of " + name;
        limit(quota, 10);
        const QuotaUser first = quotas_.of(1), second = quotas_.of(2);
        QuotaCharge six, four, all, none;
        EXPECT_TRUE(first.take(quota, 6, six) && first.take(quota, 3, four) && first.take(quota, 1, four));
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(first.take(quota, 1, none));
        expected.push_back(isOver + "10" + ofKey);
        EXPECT_TRUE(second.take(quota, 10, all));
        EXPECT_EQ(use(1, quota).refused, 3u);
        EXPECT_EQ(use(2, quota).refused, 0u);

        four = {};
        EXPECT_TRUE(first.take(quota, 4, none));
        six.resize(9);  // an increase is not refused, but counts
        EXPECT_EQ(use(1, quota).held, 13u);
        EXPECT_FALSE(first.take(quota, 1, four));
        limit(quota, 14);
        EXPECT_FALSE(first.take(quota, 1, four));
        quotas_.of(2);
        EXPECT_TRUE(first.take(quota, 1, four));

        // Two refusals were not logged, one more is, and then only one line.
        limit(quota, 0);
        quotas_.of(2);
        now_ += std::chrono::minutes(1);
        for (int i = 0; i < 2; ++i)
            EXPECT_FALSE(first.take(quota, 1, four));
        EXPECT_EQ(log_.lines().size(), expected.size() + 2);
        quotas_.logRefusals();
        expected.insert(expected.end(),
                        {wasOver + " 4 more times", isOver + "0" + ofKey, wasOver + " 1 more times"});
        EXPECT_EQ(log_.lines(), expected);
    }
    quotas_.of(3);
    EXPECT_EQ(quotas_.uses().count(1), 1u) << "the next line about its refusals has to wait";
    // Both have let go of everything.
    now_ += std::chrono::minutes(1);
    quotas_.of(3);
    EXPECT_EQ(quotas_.uses().size(), 1u);
}

TEST_F(UserQuotasTest, WithholdsLogLinesButNotOthersAndNotForLong) {
    limit(Quota::logLines, 2);
    const QuotaUser first = quotas_.of(1), second = quotas_.of(2);
    const auto logAs = [](const QuotaUser& user, const char* text) {
        const LogScope scope(user.logAdmission());
        TELVORA_LOG(kLogInfo, "%s", text);
        TELVORA_LOG(kLogDebug, "debug %s", text);
    };
    for (const char* text : {"a", "b", "c", "d"})
        logAs(first, text);
    logAs(second, "other");
    TELVORA_LOG(kLogInfo, "nobody's");
    EXPECT_EQ(use(1, Quota::logLines).held, 2u);
    now_ += std::chrono::minutes(1);
    EXPECT_EQ(use(1, Quota::logLines).held, 0u);
    logAs(first, "e");
    EXPECT_EQ(
        log_.lines(),
        (Lines{"<6>a", "<7>debug a", "<6>b", "<7>debug b",
               "<3>UserQuotas: user 1 is over the quota of 2 logLines (maxLogLinesPerUser)", "<7>debug c",
               "<7>debug d", "<6>other", "<7>debug other", "<6>nobody's",
               "<3>UserQuotas: user 1 was over the quota of logLines 1 more times", "<6>e", "<7>debug e"}));
}

TEST_F(UserQuotasTest, BytesChangeTheirQuotaWithoutBeingRefusedButAreBoundedTogether) {
    limit(Quota::pendingBytes, 10);
    limit(Quota::dormantBytes, 5);
    const QuotaUser user = quotas_.of(1);
    QuotaCharge batch, more;
    EXPECT_TRUE(user.take(Quota::pendingBytes, 10, batch));
    batch.countAs(Quota::dormantBytes);
    EXPECT_EQ(use(1, Quota::pendingBytes).held, 0u);
    EXPECT_FALSE(user.take(Quota::pendingBytes, 6, more));
    EXPECT_TRUE(user.take(Quota::pendingBytes, 5, more));
    batch.add(std::move(more));
    EXPECT_EQ(use(1, Quota::dormantBytes).held, 15u);
    batch.countAs(Quota::pendingBytes);
    EXPECT_FALSE(user.take(Quota::dormantBytes, 1, more));
    batch = {};
    EXPECT_EQ(use(1, Quota::pendingBytes).held + use(1, Quota::dormantBytes).held, 0u);
}

TEST_F(UserQuotasTest, EachClientHasErrorsAndWarningsOfItsOwn) {
    limit(Quota::logLines, 3);
    limit(Quota::sessions, 5);
    const QuotaUser noisy = quotas_.of(1), quiet = quotas_.of(1);
    const auto logAs = [](const QuotaUser& client, int level, const char* text, int times = 1) {
        const LogScope scope(client.logAdmission());
        for (int i = 0; i < times; ++i)
            TELVORA_LOG(level, "%s", text);
    };
    for (int period = 0; period < 2; ++period) {
        logAs(noisy, kLogInfo, "info", 100);
        logAs(noisy, kLogError, "error", 100);
        logAs(quiet, kLogInfo, "withheld");
        logAs(quiet, kLogWarning, "warning");
        logAs(quiet, kLogError, "cause");
        EXPECT_EQ(log_.count("<6>info"), 3u);
        EXPECT_EQ(log_.count("<3>error"), 10u);
        EXPECT_EQ(log_.count("<6>withheld"), 0u);
        EXPECT_EQ(log_.count("<4>warning") + log_.count("<3>cause"), 2u);
        EXPECT_EQ(use(1, Quota::logLines).held, 3u);
        for (int i = 0; i < 10; ++i)  // that come and go
            logAs(quotas_.of(1), kLogError, "come again", 100);
        EXPECT_EQ(log_.count("<3>come again"), 50u - 12u);
        now_ += std::chrono::minutes(1);
        log_.clear();
    }
}

// A day is one of the monotonic clock. Neither the daemon's end nor a jump of the time of day refills a
// quota.
TEST_F(UserQuotasTest, ADayGoesOnOverTheDaemonsEndAndClockJumps) {
    limit(Quota::reportsToday, 3);
    limit(Quota::reportBytesToday, 100);
    constexpr double kHour = 3600, kYear = 365 * 24 * kHour;
    Moment moment{.timeOfDay = 1e9, .sinceBoot = 100, .boot = "first"};
    const std::filesystem::path file = directory_.path() / "dailyUse.plist";
    std::unique_ptr<UserQuotas> daemon;
    const auto restart = [&] {
        if (daemon) daemon->keepDailyUse();
        daemon = std::make_unique<UserQuotas>(
            defaults_, [this] { return now_; }, file, [&] { return moment; });
    };
    restart();
    const auto pass = [&](double seconds, double jump = 0) {
        moment.timeOfDay += seconds + jump;
        moment.sinceBoot += seconds;
    };
    const auto reboot = [&](const char* name, double timeOfDay) {
        daemon->keepDailyUse();
        moment = {.timeOfDay = timeOfDay, .sinceBoot = 5, .boot = name};
        daemon.reset();
        restart();
    };
    const struct {
        const char* what;
        std::function<void()> before;
        uid_t user;
        uint64_t bytes;
        bool allowed;
    } steps[] = {
        {"some", {}, 1, 60, true},
        {"too many bytes", {}, 1, 50, false},
        {"another user", {}, 2, 100, true},
        {"the rest", {}, 1, 40, true},
        {"nothing is left", {}, 1, 1, false},
        {"the time of day jumps", [&] { pass(kHour, kYear); }, 1, 1, false},
        {"a restart, an hour later", [&] { pass(kHour), restart(); }, 1, 1, false},
        {"a clock that lost its time", [&] { reboot("second", 10); }, 1, 1, false},
        {"21 hours later", [&] { pass(21 * kHour), restart(); }, 1, 1, false},
        {"the next day", [&] { pass(2 * kHour); }, 1, 1, true},
        {"a second one", {}, 1, 0, true},
        {"a third one, after a restart", restart, 1, 0, true},
        {"too many reports", {}, 1, 0, false},
        {"hours without power", [&] { reboot("third", moment.timeOfDay + 20 * kHour); }, 1, 0, false},
        {"more of them", [&] { reboot("fourth", moment.timeOfDay + 20 * kHour); }, 1, 0, true},
        {"a file that is damaged", [&] { daemon->keepDailyUse(), directory_.write("dailyUse.plist", "?"); },
         2, 100, true},
    };
    for (const auto& [what, before, user, bytes, allowed] : steps) {
        if (before) before();
        EXPECT_EQ(daemon->of(user).spendToday(bytes), allowed) << what;
    }
    EXPECT_EQ(log_.count("<3>UserQuotas: user 1 is over the quota of 100 reportBytesToday "
                         "(maxReportBytesPerUserPerDay)"),
              4u);
    const auto uses = daemon->uses().at(1);
    EXPECT_EQ(uses[static_cast<size_t>(Quota::reportsToday)].held, 1u);

    for (const Quota quota : {Quota::reportsToday, Quota::reportBytesToday})
        limit(quota, std::numeric_limits<int64_t>::max());
    EXPECT_TRUE(daemon->of(1).spendToday(1000));
    daemon->keepDailyUse();
    EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace telvora
