// SPDX-License-Identifier: Apache-2.0
#include "outbox/stored_outbox.h"

#include <gmock/gmock.h>

#include <numeric>

#include "async/virtual_network.h"
#include "http/retry_after.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/outbox/outbox_messages.h"
#include "tests/unit/outbox/volatile_disk.h"

namespace telvora::test {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

HttpResult failureOf(HttpError::Kind kind) {
    return tl::unexpected(HttpError{7, "no network", kind});
}
const HttpResult kNoConnection = failureOf(HttpError::Kind::noConnection);

class StoredOutboxTest : public testing::Test {
  protected:
    void SetUp() override { open(); }

    ~StoredOutboxTest() override {
        while (http.complete(kNoConnection)) {
        }
        network.runFor({});
    }

    void open() {
        network.runFor({});  // as the end of the pool drops its items
        outbox.reset();
        ledger.emplace();
        outbox = StoredOutbox::open(directory_.path() / "outbox.db", limits,
                                    {.http = http,
                                     .ledger = *ledger,
                                     .queue = network.makeQueue(),
                                     .moment = [this] { return moment(); },
                                     .random = [this] { return random; },
                                     .consent = [this] { return consent; },
                                     .identifier = [this] { return identifier; },
                                     .sparesLink = sparesLink},
                                    VolatileDisk::kVfs)
                     .value();
        network.runFor({});
    }
    OutboxMoment moment() const {
        const double steady = std::chrono::duration<double>(network.now().time_since_epoch()).count();
        return {1447660800 + steady, steady, "boot"};
    }
    void answer(HttpResult result) {
        http.setHandler([this, result](const HttpRequest&) {
            attempts.push_back(network.now());
            return result;
        });
    }
    // Hands over a message that was not posted yet. Whether it is kept.
    bool keepUnposted(OutboxMessage message) {
        bool kept = false;
        outbox->keep(std::move(message), nullptr, [&kept](bool stored) { kept = stored; });
        network.runFor({});
        return kept;
    }
    // Hands a message over, and runs what is due.
    void keep(OutboxMessage message, const HttpResult& result = kNoConnection) {
        bool kept = false;
        outbox->keep(std::move(message), &result, [&kept](bool stored) { kept = stored; });
        network.runFor({});
        EXPECT_TRUE(kept);
    }
    std::vector<std::string> sentSince(size_t requests) const {
        std::vector<std::string> bodies;
        for (size_t i = requests; i < http.requestCount(); ++i)
            bodies.push_back(http.requests()[i].body);
        return bodies;
    }
    uint64_t at(ReportOutcome outcome) const { return tally()[outcome]; }
    ReportTally tally() const {
        const ReportTally tally = ledger->totals().at(StoredOutbox::kAccount);
        EXPECT_EQ(tally.accepted, std::accumulate(tally.outcomes.begin(), tally.outcomes.end(), uint64_t{0}));
        return tally;
    }

    VolatileDisk disk;
    OutboxLimits limits{1 << 20, hours(24 * 30), 1000};
    VirtualNetwork network;
    FakeHttpClient http;
    std::optional<ReportLedger> ledger;
    double random = 1;
    bool consent = true;
    std::string identifier = "device";
    bool sparesLink = false;
    std::vector<SteadyTime> attempts;
    std::unique_ptr<StoredOutbox> outbox;

  private:
    TemporaryDirectory directory_;
};

TEST_F(StoredOutboxTest, PostsEverythingInOrderAfterTwoWeeksWithoutANetwork) {
    answer(kNoConnection);
    std::vector<std::string> bodies;
    for (int day = 0; day < 14; ++day) {
        for (int i = 0; i < 10; ++i) {
            bodies.push_back("day " + std::to_string(day) + " message " + std::to_string(i));
            keep(messageOf(bodies.back()));
        }
        network.runFor(hours(24));
        if (day == 7) open();  // a restart
    }
    EXPECT_EQ(at(ReportOutcome::held), 140U);
    EXPECT_TRUE(outbox->isWaiting());
    EXPECT_LT(http.requestCount(), 14U * 24 + 30) << "once an hour, and after each start";
    EXPECT_GT(http.requestCount(), 14U * 24 - 30);

    const size_t before = http.requestCount();
    answer(FakeHttpClient::response(204));
    network.runFor(hours(1));
    EXPECT_EQ(sentSince(before), bodies);
    EXPECT_EQ(at(ReportOutcome::delivered), 140U);
    EXPECT_FALSE(outbox->isWaiting());
    for (const HttpRequest& request : http.requests())
        EXPECT_EQ(headerOf(request, "Idempotency-Key"), "\"key of " + request.body + "\"");
}

TEST_F(StoredOutboxTest, TreatsEachAnswerByItsMeaning) {
    using Kind = HttpError::Kind;
    const auto status = [](int code) { return FakeHttpClient::response(code); };
    const struct {
        const char* what;
        HttpResult result;
        std::optional<ReportOutcome> outcome;  // absent: tried again
    } cases[] = {{"taken", status(204), ReportOutcome::delivered},
                 {"refused", status(400), ReportOutcome::rejected},
                 {"redirected", status(301), ReportOutcome::rejected},
                 {"timeout", status(408), {}},
                 {"too early", status(425), {}},
                 {"too many requests", status(429), {}},
                 {"server error", status(500), {}},
                 {"unavailable", status(503), {}},
                 {"no connection", failureOf(Kind::noConnection), {}},
                 {"no answer", failureOf(Kind::noAnswer), {}},
                 {"too many pending", failureOf(Kind::tooManyPending), {}},
                 {"the client is stopping", failureOf(Kind::notSent), {}}};
    for (const auto& [what, result, outcome] : cases) {
        SCOPED_TRACE(what);
        const OutboxMessage message = messageOf(what);
        EXPECT_EQ(mayBePostedLater(message.request, result), !outcome);
        const uint64_t before = outcome ? at(*outcome) : 0;
        answer(result);
        keep(messageOf(what));
        network.runFor(seconds(15));
        EXPECT_EQ(at(ReportOutcome::held), outcome ? 0U : 1U);
        if (outcome) {
            EXPECT_EQ(at(*outcome), before + 1);
        }
        answer(status(204));
        network.runFor(minutes(1));
        EXPECT_EQ(at(ReportOutcome::held), 0U);
    }
    HttpRequest invalid = messageOf("x").request;
    invalid.url = "nonsense";
    EXPECT_FALSE(mayBePostedLater(invalid, failureOf(Kind::notSent)));
}

TEST_F(StoredOutboxTest, WaitsLongerAfterEachFailureAndAsLongAsTheServerAsks) {
    answer(kNoConnection);
    const SteadyTime begin = network.now();
    keep(messageOf("a"));
    network.runFor(hours(3));
    std::vector<int64_t> waits;
    SteadyTime last = begin;
    for (const SteadyTime attempt : attempts) {
        waits.push_back(std::chrono::round<seconds>(attempt - last).count());
        last = attempt;
    }
    EXPECT_EQ(waits, (std::vector<int64_t>{15, 30, 60, 120, 240, 480, 960, 1920, 3600}));

    answer(FakeHttpClient::response(503, {}, {{"Retry-After", "7200"}}));
    network.runFor(hours(1));
    const size_t asked = attempts.size();
    network.runFor(seconds(7190) - (network.now() - attempts.back()));
    EXPECT_EQ(attempts.size(), asked);
    answer(FakeHttpClient::response(204));
    outbox->reached("https://one.example/other");  // the server answers others
    network.runFor({});
    EXPECT_EQ(at(ReportOutcome::delivered), 1U);

    random = 0;  // full jitter: down to the least pause
    attempts.clear();
    answer(kNoConnection);
    keep(messageOf("b"));
    network.runFor(seconds(10));
    EXPECT_GE(attempts.size(), 9U);
}

TEST(RetryAfter, IsReadAsSecondsOrAsADate) {
    const struct {
        const char* text;
        int64_t seconds;
    } cases[] = {{"120", 120},
                 {"0", 0},
                 {"99999999999999999999", 86400},
                 {"-5", 0},
                 {"soon", 0},
                 {"", 0},
                 {"1.5", 0},
                 {"Mon, 16 Nov 2015 08:00:10 GMT", 10},
                 {"Mon, 16 Nov 2015 07:59:50 GMT", 0},
                 {"Mon, 16 Nov 2055 08:00:10 GMT", 86400},
                 {"Mon, 16 Foo 2015 08:00:10 GMT", 0},
                 {"Mon, 16 Nov 2015 08:00:10 GMT x", 0}};
    for (const auto& [text, expected] : cases) {
        const HttpResult result = FakeHttpClient::response(503, {}, {{"Retry-After", text}});
        EXPECT_EQ(retryAfter(result, 1447660800).count(), expected) << text;
    }
    EXPECT_EQ(retryAfter(kNoConnection, 0).count(), 0);
}

TEST_F(StoredOutboxTest, OneServerDoesNotHoldUpAnother) {
    http.setHandler([](const HttpRequest& request) {
        return request.url.starts_with("https://two") ? FakeHttpClient::response(204) : kNoConnection;
    });
    keep(messageOf("a"));
    keep(messageOf("b", "https://two.example"), FakeHttpClient::response(503, {}, {{"Retry-After", "20"}}));
    network.runFor(seconds(19));
    EXPECT_EQ(at(ReportOutcome::delivered), 0U);
    network.runFor(seconds(2));
    EXPECT_EQ(at(ReportOutcome::delivered), 1U);
    EXPECT_EQ(at(ReportOutcome::held), 1U);
}

TEST_F(StoredOutboxTest, RestsAsLongAsAMessageTook) {
    keep(messageOf("a"));
    keep(messageOf("b"));
    network.runFor(seconds(15));
    ASSERT_EQ(http.requestCount(), 1U) << "one at a time";
    network.runFor(seconds(30));
    http.complete(FakeHttpClient::response(204));
    network.runFor(seconds(29));
    EXPECT_EQ(http.requestCount(), 1U);
    network.runFor(seconds(2));
    EXPECT_EQ(http.requestCount(), 2U);
}

TEST_F(StoredOutboxTest, SendsNothingThatMayNoLongerLeave) {
    const auto underConsent = [](const char* body) {
        OutboxMessage message = messageOf(body);
        message.underConsent = true;
        return message;
    };
    answer(kNoConnection);
    const std::string withdrawn(100, 'a');
    keep(underConsent(withdrawn.c_str()));
    keep(messageOf("b"));
    answer(FakeHttpClient::response(204));
    const size_t before = http.requestCount();
    consent = false;
    network.runFor(hours(2));
    EXPECT_EQ(at(ReportOutcome::consentWithdrawn), 1U);
    EXPECT_EQ(at(ReportOutcome::delivered), 1U);
    EXPECT_FALSE(disk.holds(withdrawn));

    consent = true;
    answer(kNoConnection);
    keep(underConsent("c"));
    identifier = "another";
    answer(FakeHttpClient::response(204));
    network.runFor(hours(2));
    EXPECT_EQ(at(ReportOutcome::identifiersReset), 1U);

    identifier = "device";
    answer(kNoConnection);
    keep(messageOf("d"));
    network.runFor(limits.age - hours(2));
    EXPECT_EQ(at(ReportOutcome::held), 1U);
    network.runFor(hours(3));
    EXPECT_EQ(at(ReportOutcome::expired), 1U);
    EXPECT_THAT(sentSince(before), testing::Each(testing::AnyOf("b", "d")));
}

TEST_F(StoredOutboxTest, SparesTheLinkUntilHalfFull) {
    answer(FakeHttpClient::response(204));
    sparesLink = true;
    open();
    OutboxMessage underConsent = messageOf("a");
    underConsent.underConsent = true;
    EXPECT_TRUE(keepUnposted(std::move(underConsent)));
    EXPECT_TRUE(keepUnposted(messageOf("b")));
    EXPECT_FALSE(keepUnposted(messageOf(std::string(2 << 20, 'x')))) << "larger than the outbox";
    keep(messageOf("c"));  // found no server
    consent = false;
    network.runFor(hours(2));
    EXPECT_EQ(at(ReportOutcome::consentWithdrawn), 1U) << "while nothing leaves";
    EXPECT_EQ(at(ReportOutcome::held), 2U);
    EXPECT_EQ(http.requestCount(), 0U);

    answer(kNoConnection);
    EXPECT_TRUE(keepUnposted(messageOf(std::string(1 << 19, 'x'))));
    EXPECT_FALSE(outbox->sparesLink()) << "half full";
    answer(FakeHttpClient::response(204));
    network.runFor(minutes(1));
    EXPECT_EQ(at(ReportOutcome::delivered), 3U) << "the oldest first, until the large one has left";
    EXPECT_TRUE(outbox->sparesLink());
    EXPECT_TRUE(keepUnposted(messageOf("d")));
    network.runFor(hours(2));
    EXPECT_EQ(at(ReportOutcome::held), 1U);

    outbox->setSparesLink(false);
    network.runFor(minutes(1));
    EXPECT_EQ(at(ReportOutcome::delivered), 4U);
    EXPECT_FALSE(outbox->isStoring());
}

TEST_F(StoredOutboxTest, SendsNothingTwiceFromAFullDisk) {
    answer(kNoConnection);
    for (const char* body : {"a", "b", "c"})
        keep(messageOf(body));
    disk.failFrom(0, SQLITE_FULL);
    bool kept = true;
    outbox->keep(messageOf("d"), &kNoConnection, [&kept](bool stored) { kept = stored; });
    network.runFor({});
    EXPECT_FALSE(kept);
    const size_t before = http.requestCount();
    answer(FakeHttpClient::response(204));
    outbox->reached("https://one.example/");
    network.runFor(hours(1));
    EXPECT_EQ(at(ReportOutcome::held), 3U);
    disk.mend();
    network.runFor(minutes(1));
    EXPECT_EQ(at(ReportOutcome::delivered), 3U);
    EXPECT_EQ(sentSince(before), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(StoredOutboxTest, CountsWhatItCanNotTake) {
    answer(kNoConnection);
    keep(messageOf(std::string(2 << 20, 'x')));
    EXPECT_EQ(at(ReportOutcome::oversized), 1U);
    for (int i = 0; i < 1002; ++i)
        keep(messageOf(std::to_string(i)));
    EXPECT_EQ(at(ReportOutcome::outboxFull), 2U);
    EXPECT_EQ(at(ReportOutcome::held), 1000U);

    // The end: what was handed over is stored, and no more is taken.
    bool kept = false, later = true;
    outbox->keep(messageOf("last"), &kNoConnection, [&](bool stored) { kept = stored; });
    outbox->close();
    outbox->keep(messageOf("later"), &kNoConnection, [&](bool stored) { later = stored; });
    EXPECT_TRUE(kept);
    EXPECT_FALSE(later);
    EXPECT_EQ(at(ReportOutcome::held), 1000U);
    open();
    answer(FakeHttpClient::response(204));
    network.runFor(minutes(1));
    EXPECT_EQ(http.requests().back().body, "last");
}

}  // namespace
}  // namespace telvora::test
