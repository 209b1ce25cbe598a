// SPDX-License-Identifier: Apache-2.0
//
// Sessions that belong together, at the real daemon, from one process and from several.
#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <limits>

#include "telvora-lab/bags.h"
#include "telvora/keys.h"
#include "tests/support/blocking_session.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::bagWithClients;
using lab::ChildProcess;
using lab::ChildProcessOptions;
using lab::kPatience;
using lab::openClientEntry;
using testing::ElementsAre;
using testing::Optional;
using Session = std::unique_ptr<BlockingSession>;

constexpr uint16_t kBlacklisted = 9;  // reaches aggregators, but no backend
constexpr char kUnreachable[] = "<3>sendMessageWithDictionary: Failed to get remote object proxy: ";

SessionSettings settingsFor(int64_t sessionID) {
    SessionSettings settings;
    settings.sessionID = sessionID;
    return settings;
}

SessionSettings settingsFor(int64_t sessionID, const std::string& token, int64_t level) {
    SessionSettings settings = settingsFor(sessionID);
    settings.setHierarchy(token, level);
    return settings;
}

class Hierarchy : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        Dictionary entry = openClientEntry();
        entry.set("event_blacklist", Array{kBlacklisted});
        laboratory().setBag("dravik", bagWithClients({entry}));
        startDaemon();
    }

    Session open(const SessionSettings& settings) {
        auto session = std::make_unique<BlockingSession>(daemon().socketPath(), settings);
        EXPECT_THAT(session->startConfig(), Optional(ElementsAre("httpPost"))) << settings.sessionID;
        return session;
    }
    Session openAggregator(int64_t sessionID, const std::string& token, int64_t level) {
        SessionSettings settings = settingsFor(sessionID, token, level);
        settings.aggregates = true;
        return open(settings);
    }
    // Ends a session, and waits until the daemon is through with it.
    void close(Session& session, int64_t sessionID) {
        session.reset();
        expectLine("<7>dealloc: TelvoradSession dealloc: " + std::to_string(sessionID));
    }
    std::unique_ptr<ChildProcess> start(std::vector<std::string> arguments) {
        return std::make_unique<ChildProcess>(ChildProcessOptions{std::move(arguments), {}, false});
    }
    // A session in a process of its own, which reports nothing and stays until its input is closed.
    std::unique_ptr<ChildProcess> openElsewhere(int64_t sessionID, const std::string& token, int64_t level,
                                                bool aggregates = false) {
        std::vector<std::string> arguments{
            TELVORACTL_PATH,     "--socket", daemon().socketPath(), "session",
            "--client-type",     "8",        "--session-id",        std::to_string(sessionID),
            "--client-name",     "ctl",      "--require-user-info", "--batch",
            "--hierarchy-token", token,      "--hierarchy-level",   std::to_string(level)};
        if (aggregates) arguments.push_back("--aggregate");
        auto process = start(std::move(arguments));
        EXPECT_TRUE(process->output().waitFor(
            [](std::string_view line) { return line == "{\"reportingStates\":[\"httpPost\"]}"; }, kPatience));
        return process;
    }
    // The ID under which a session reports now.
    std::string idOf(const Session& session) {
        const int64_t mark = ++lastMark_;
        session->send(4, 1, {{"mark", mark}});
        EXPECT_EQ(session->flush().second, std::nullopt);
        for (const Dictionary& event : reports().events()) {
            if (event.integer("mark") == mark) return *event.string("_sessionID");
        }
        return "no report arrived";
    }

  private:
    int64_t lastMark_ = 0;
};

// The next report, of the daemon's own start messages none.
Delivery nextReport(const Session& session) {
    Delivery delivery = session->nextDelivery();
    while (delivery.sessionInfo && delivery.category == 0)
        delivery = session->nextDelivery();
    return delivery;
}

bool isEndMarker(const Delivery& delivery) {
    return !delivery.sessionInfo && !delivery.payload && delivery.timestamp == 0 && delivery.category == 0 &&
           delivery.type == 0;
}

TEST_F(Hierarchy, ChildrenOutliveTheirParents) {
    auto parent = openElsewhere(10, "t", 0);
    const Session child = open(settingsFor(11, "t", 1));
    const Session own = open(settingsFor(12));
    const std::string combined = idOf(child);
    EXPECT_EQ(combined.size(), 2 * idOf(own).size() + 1);
    EXPECT_EQ(combined[24], '.');

    parent->closeInput();
    EXPECT_EQ(parent->waitForExit(kPatience), 0);
    expectLine("<7>dealloc: TelvoradSession dealloc: 10");
    EXPECT_EQ(idOf(child), combined) << "the backends keep the ID that they have";

    const Session orphan = open(settingsFor(13, "t", 1));
    EXPECT_EQ(idOf(orphan).find('.'), std::string::npos);
    expectLine("<3>parentSessionForChild: Unable to find session with hierarchy of 0 for hierarchyToken 't'");
    expectLine(
        "<6>syncReportingStates: child session 13 (backend httpPost) with hierarchy 1 is missing its parent");

    const Session newParent = open(settingsFor(14, "t", 0));
    EXPECT_EQ(idOf(child), idOf(newParent) + combined.substr(24));
}

TEST_F(Hierarchy, ParentsOutliveTheirChildren) {
    const Session parent = open(settingsFor(10, "t", 0));
    const std::string id = idOf(parent);
    auto child = openElsewhere(11, "t", 1);
    Session grandchild = open(settingsFor(12, "t", 2));
    EXPECT_EQ(idOf(grandchild).size(), 3 * id.size() + 2);
    child->closeInput();
    EXPECT_EQ(child->waitForExit(kPatience), 0);
    expectLine("<7>dealloc: TelvoradSession dealloc: 11");
    EXPECT_EQ(idOf(parent), id);
    EXPECT_EQ(idOf(open(settingsFor(13, "t", 1))).substr(0, 25), id + ".");
}

TEST_F(Hierarchy, TheFirstOfALevelIsTheParent) {
    const Session top = open(settingsFor(1, "t", 0));
    Session first = open(settingsFor(2, "t", 1));
    const Session second = open(settingsFor(3, "t", 1));
    const Session bottom = open(settingsFor(4, "t", 2));
    const std::string own = idOf(bottom).substr(49);
    EXPECT_EQ(idOf(bottom), idOf(first) + own);
    close(first, 2);
    EXPECT_THAT(bottom->fetchStates(), Optional(ElementsAre("httpPost")));
    const Session lower = open(settingsFor(5, "t", 2));
    EXPECT_EQ(idOf(lower).substr(0, 49), idOf(second));
}

TEST_F(Hierarchy, AChangedTokenMovesASession) {
    const Session one = open(settingsFor(1, "one", 0));
    const Session two = open(settingsFor(2, "two", 0));
    const Session child = open(settingsFor(3, "one", 1));
    const std::string before = idOf(child);
    child->setSessionInfo(settingsFor(3, "two", 1));
    EXPECT_EQ(idOf(child), before) << "the new place counts from the next configuration on";
    child->startConfig();
    EXPECT_EQ(idOf(child), idOf(two) + before.substr(24));
    // Under its old token nobody finds it any more.
    EXPECT_EQ(idOf(open(settingsFor(4, "one", 2))).find('.'), std::string::npos);
    EXPECT_EQ(before.substr(0, 24), idOf(one));
}

TEST_F(Hierarchy, OddTokensHarmNobody) {
    const Session top = open(settingsFor(1, "t", 0));
    const auto token = [](const PropertyList& tokenID, const PropertyList& level) {
        return Dictionary{{kTelvoraHierarchyTokenTokenID, tokenID}, {kTelvoraHierarchyTokenLevel, level}};
    };
    constexpr auto kLowest = std::numeric_limits<int64_t>::min();
    constexpr auto kHighest = std::numeric_limits<int64_t>::max();
    const PropertyList tokens[] = {"t",
                                   Array{"t", 1},
                                   7,
                                   token(7, 1),
                                   token(Array{"t"}, 1),
                                   token("t", "one"),
                                   token("t", -1),
                                   token("t", kLowest),
                                   token("t", 5),
                                   token("t", kHighest),
                                   token("", 1),
                                   Dictionary{}};
    int64_t sessionID = 100;
    for (const PropertyList& odd : tokens) {
        SessionSettings settings = settingsFor(++sessionID);
        settings.hierarchyToken = odd;
        settings.aggregates = true;
        EXPECT_EQ(idOf(open(settings)).find('.'), std::string::npos) << sessionID;
    }
    EXPECT_EQ(idOf(open(settingsFor(2, "t", 1))).substr(0, 25), idOf(top) + ".");
}

TEST_F(Hierarchy, AGapCutsTheHigherAncestorsOff) {
    const Session top = open(settingsFor(1, "t", 0));
    const Session second = open(settingsFor(2, "t", 2));
    const Session third = open(settingsFor(3, "t", 3));
    const std::string id = idOf(second);
    EXPECT_EQ(id.size(), 24u);
    EXPECT_EQ(idOf(third).substr(0, 25), id + ".");
    expectLine(
        "<6>parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
        "parentSessionID is '" +
        id + "'");
    // Aggregation knows no gaps.
    const Session aggregator = openAggregator(4, "t", 1);
    third->send(kBlacklisted, 1, {{"k", 1}});
    EXPECT_EQ(nextReport(aggregator).payload->integer("k"), 1);
}

TEST_F(Hierarchy, OnlyTheHighestAggregatorHears) {
    const Session child = openAggregator(2, "t", 1);
    child->send(kBlacklisted, 1, {});
    EXPECT_EQ(nextReport(child).type, 1);
    const Session parent = openAggregator(1, "t", 0);
    EXPECT_TRUE(isEndMarker(child->nextDelivery()));
    child->send(kBlacklisted, 2, {{"k", 1}, {kTelvoraUserInfoClientName, "somebody else"}});
    const Delivery delivery = nextReport(parent);
    EXPECT_EQ(delivery.sessionInfo->integer(kTelvoraSessionInfoSessionID), 2);
    EXPECT_GT(delivery.timestamp, 0);
    EXPECT_EQ(delivery.type, 2);
    EXPECT_EQ(delivery.payload, (Dictionary{{"k", 1},
                                            {kTelvoraUserInfoClientName, "tester"},
                                            {kTelvoraUserInfoServiceName, "integration"}}));
}

TEST_F(Hierarchy, SurvivesClientsThatAreKilled) {
    const Session neighbour = open(settingsFor(1, "t", 1));
    auto aggregator = openElsewhere(10, "t", 0, true);
    auto flood = start({TELVORA_HIERARCHY_CLIENT, daemon().socketPath(), "t", "flood", "1"});
    const auto flooding = [](std::string_view line) { return line == "flooding"; };
    ASSERT_TRUE(flood->output().waitFor(flooding, kPatience));
    ASSERT_TRUE(aggregator->output().waitFor(
        [](std::string_view line) { return line.find("xxxx") != std::string_view::npos; }, kPatience));

    // While it is being called: its end marker, at the least, can't reach it any more.
    const size_t from = daemon().logLineCount();
    aggregator->signal(SIGKILL);
    EXPECT_EQ(aggregator->waitForExit(kPatience), 128 + SIGKILL);
    expectLine("<7>dealloc: TelvoradSession dealloc: 10");
    expectLineBeginning(kUnreachable, from);
    EXPECT_EQ(idOf(neighbour).size(), 49u);

    // While its reports are in flight.
    flood->signal(SIGKILL);
    EXPECT_EQ(flood->waitForExit(kPatience), 128 + SIGKILL);
    expectLine("<7>dealloc: TelvoradSession dealloc: 1000");
    EXPECT_EQ(idOf(neighbour).size(), 49u);
    EXPECT_EQ(idOf(open(settingsFor(2, "t", 0))).size(), 24u);
}

int64_t residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::stoll(line.substr(6));
    }
    return 0;
}

TEST_F(Hierarchy, AnAggregatorThatStopsReadingDelaysNobody) {
    constexpr size_t kBytes = 16'000;
    constexpr int kUntilFull = 500;  // 8 MB: more than all that may wait for one client
    constexpr int kMore = 2000;
    [[maybe_unused]] constexpr int64_t kMayGrowKiB = 4096;
    const Session aggregator = openAggregator(1, "t", 0);
    const Session child = open(settingsFor(2, "t", 1));
    const Session neighbour = open(settingsFor(3));

    const size_t from = daemon().logLineCount();
    const Dictionary payload{{"text", std::string(kBytes, 'x')}};
    for (int i = 0; i < kUntilFull; ++i)
        child->send(kBlacklisted, 1, payload);
    expectLineBeginning(kUnreachable, from);
    [[maybe_unused]] const int64_t before = residentKiB(daemon().pid());
    for (int i = 0; i < kMore; ++i)
        child->send(kBlacklisted, 2, payload);
#ifndef TELVORA_SANITIZED  // whose runtimes keep what is freed
    EXPECT_LT(residentKiB(daemon().pid()), before + kMayGrowKiB);
#endif
    EXPECT_EQ(idOf(neighbour).size(), 24u);
    EXPECT_EQ(idOf(child).size(), 49u);

    // What was not dropped is still there for it, and it can go on.
    EXPECT_EQ(nextReport(aggregator).type, 1);
    EXPECT_THAT(aggregator->fetchStates(), Optional(ElementsAre("httpPost")));
    child->send(kBlacklisted, 3, {});
    Delivery delivery = nextReport(aggregator);
    while (delivery.type != 3)
        delivery = nextReport(aggregator);
    EXPECT_EQ(delivery.sessionInfo->integer(kTelvoraSessionInfoSessionID), 2);
}

TEST_F(Hierarchy, TakesSessionsThatJoinAndLeaveAllAtOnce) {
    constexpr int kProcesses = 4;
    const Session top = open(settingsFor(5000, "t", 0));
    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (int i = 0; i < kProcesses; ++i)
        clients.push_back(start({TELVORA_HIERARCHY_CLIENT, daemon().socketPath(), "t", "churn", "25", "2"}));
    for (const auto& client : clients) {
        EXPECT_EQ(client->waitForExit(kPatience * 2), 0);
        EXPECT_EQ(client->errors().lines(), std::vector<std::string>());
    }
    EXPECT_EQ(idOf(open(settingsFor(5001, "t", 1))).substr(0, 25), idOf(top) + ".");
}

TEST_F(Hierarchy, OneShotMessagesGiveTheirSessionTheirPlace) {
    const Session top = open(settingsFor(1, "t", 0));
    auto send = start({TELVORACTL_PATH, "--socket", daemon().socketPath(), "oneshot", "--client-type", "8",
                       "--session-id", "2", "--client-name", "ctl", "--require-user-info",
                       "--hierarchy-token", "t", "--hierarchy-level", "1", "--category", "4", "--type", "7"});
    EXPECT_EQ(send->waitForExit(kPatience), 0);
    expectLine(
        "<7>updateCorrelatedSessions: Adding session 2 to list for hierarchyToken t with "
        "hierarchyLevel 1");
    // Its report goes out under no combined ID, and its place is free again.
    expectLine("<7>dealloc: TelvoradSession dealloc: 2");
    ASSERT_TRUE(reports().waitForEvents(1, kPatience));
    for (const Dictionary& event : reports().events())
        EXPECT_EQ(event.string("_sessionID"), nullptr);
    EXPECT_EQ(idOf(open(settingsFor(3, "t", 2))).find('.'), std::string::npos);
}

class Flush : public DaemonFixture {};

TEST_F(Flush, WithoutBackendsIsAnError) {
    startDaemon();
    BlockingSession session(daemon().socketPath());
    EXPECT_EQ(session.startConfig(), std::nullopt);
    EXPECT_EQ(session.flush(),
              FlushAnswer(std::nullopt, makeTelvoraError("No backends available to send message", -1)));
    EXPECT_EQ(session.finish(), std::nullopt);
    expectLine("<7>internalFlushMessagesWithCompletion: No backends available to send message");
}

TEST_F(Flush, OfAnEmptyDictionaryIsNeverAnswered) {
    laboratory().setBag("dravik", {{"version", "1"}, {"release", Dictionary{{"unknown", Dictionary{}}}}});
    startDaemon();
    BlockingSession session(daemon().socketPath());
    EXPECT_THAT(session.startConfig(), Optional(testing::IsEmpty()));
    session.beginFlush();
    EXPECT_THAT(session.fetchStates(), Optional(testing::IsEmpty()));  // a later call has its answer
    EXPECT_EQ(session.unclaimedAnswers(), 0u);
}

TEST_F(Flush, TellsOfTheFirstBackendThatFailsAtOnce) {
    lab::ReportingServer failing(laboratory().pki());
    failing.setFault(lab::ReportingFault::noAnswer);
    Dictionary second = openClientEntry();
    second.set("post_url", failing.eventsURL());
    laboratory().setBag(
        "dravik", {{"version", "1"},
                   {"release", Dictionary{{"httpPost", Dictionary{{"clients", Array{openClientEntry()}}}},
                                          {"httpPost2", Dictionary{{"clients", Array{second}}}}}}});
    startDaemon();
    BlockingSession session(daemon().socketPath());
    EXPECT_THAT(session.startConfig(), Optional(ElementsAre("httpPost", "httpPost2")));
    reports().setFault(lab::ReportingFault::hold);
    session.send(4, 1, {{"k", 1}});
    EXPECT_TRUE(session.flush().second) << "while the other backend still waits for its server";
    reports().setFault(lab::ReportingFault::none);
    reports().releaseHeld();
    EXPECT_TRUE(reports().waitForEvents(2, kPatience));
    EXPECT_TRUE(session.flush().second) << "nothing to flush";
    EXPECT_EQ(session.unclaimedAnswers(), 0u);
}

}  // namespace
}  // namespace telvora::test
