// SPDX-License-Identifier: Apache-2.0
//
// Hierarchies of sessions at the real daemon, and the limits of their clients' influence on each other.

#include <csignal>
#include <limits>
#include <thread>

#include "telvora/keys.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::Optional;
using testing::StartsWith;

constexpr uint16_t kBlacklisted = 9;  // reaches aggregators, but no backend
constexpr char kUnreachable[] = "<3>sendMessageWithDictionary: Failed to get remote object proxy: ";

SessionSettings place(int64_t sessionID, const std::string& tokenID, int64_t level, bool aggregates = false) {
    return {
        .sessionID = sessionID, .hierarchyToken = hierarchyToken(tokenID, level), .aggregates = aggregates};
}

class Hierarchy : public DaemonFixture {
  protected:
    Hierarchy() {
        laboratory().setBag("dravik",
                            bagWithClients({openClientEntry({{"event_blacklist", Array{kBlacklisted}}})}));
        startDaemon();
    }

    // Waits until the daemon has removed a session.
    void expectEndOf(int64_t sessionID) {
        expectLine("<7>dealloc: TelvoradSession dealloc: " + std::to_string(sessionID));
    }
    void close(Session& session, int64_t sessionID) {
        session.reset();
        expectEndOf(sessionID);
    }
    // telvoractl with a session of that ID on that level of the hierarchy "t".
    std::string telvoractl(const std::string& command, int64_t sessionID, int64_t level) {
        return TELVORACTL_PATH " --socket " + daemon().socketPath() + " " + command +
               " --client-type 8 --client-name ctl --require-user-info --hierarchy-token t " +
               "--hierarchy-level " + std::to_string(level) + " --session-id " + std::to_string(sessionID);
    }
    // The ID under which a session reports now.
    std::string idOf(const Session& session) {
        const int64_t mark = ++lastMark_;
        session->send(4, 1, {{"mark", mark}});
        EXPECT_EQ(session->flush().error, std::nullopt);
        for (const Dictionary& event : reports().events()) {
            if (event.integer("mark") == mark) return *event.string("_sessionID");
        }
        return "no report arrived";
    }

  private:
    int64_t lastMark_ = 0;
};

// The next report that is not one of the daemon's own start messages.
AggregatedMessage nextReport(const Session& session) {
    AggregatedMessage message = session->nextDelivery();
    while (message.sessionInfo && message.category == 0)
        message = session->nextDelivery();
    return message;
}

TEST_F(Hierarchy, ChildrenOutliveTheirParentsAndParentsTheirChildren) {
    Session parent = open(place(10, "t", 0));
    const std::string top = idOf(parent);
    EXPECT_EQ(top.size(), 24u);
    Session child = open(place(11, "t", 1));
    const std::string combined = idOf(child);
    EXPECT_EQ(combined.substr(0, 25), top + ".");
    Session grandchild = open(place(12, "t", 2));
    EXPECT_THAT(idOf(grandchild), StartsWith(combined + "."));

    close(grandchild, 12);
    EXPECT_EQ(idOf(child), combined);
    close(parent, 10);
    EXPECT_EQ(idOf(child), combined) << "the backends keep the ID that they have";
    const Session orphan = open(place(13, "t", 1));
    EXPECT_EQ(idOf(orphan).size(), 24u);
    expectLine("<3>parentSessionForChild: Unable to find session with hierarchy of 0 for hierarchyToken 't'");
    const Session newParent = open(place(14, "t", 0));
    EXPECT_EQ(idOf(child), idOf(newParent) + combined.substr(24));
}

TEST_F(Hierarchy, TheFirstOfALevelIsTheParent) {
    const Session top = open(place(1, "t", 0));
    Session first = open(place(2, "t", 1));
    const Session second = open(place(3, "t", 1));
    EXPECT_THAT(idOf(open(place(4, "t", 2))), StartsWith(idOf(first) + "."));
    close(first, 2);
    EXPECT_THAT(idOf(open(place(5, "t", 2))), StartsWith(idOf(second) + "."));
}

TEST_F(Hierarchy, AChangedTokenMovesASession) {
    const Session one = open(place(1, "one", 0));
    const Session two = open(place(2, "two", 0));
    const Session child = open(place(3, "one", 1));
    const std::string before = idOf(child);
    EXPECT_THAT(before, StartsWith(idOf(one) + "."));
    child->setSessionInfo(place(3, "two", 1));
    EXPECT_EQ(idOf(child), before) << "the new place counts from the next configuration on";
    child->startConfig();
    EXPECT_EQ(idOf(child), idOf(two) + before.substr(24));
    EXPECT_EQ(idOf(open(place(4, "one", 2))).size(), 24u) << "nobody finds it under its old token";
}

TEST_F(Hierarchy, OddTokensHarmNobody) {
    const Session top = open(place(1, "t", 0));
    using Levels = std::numeric_limits<int64_t>;
    int64_t sessionID = 100;
    for (const PropertyList& odd : std::initializer_list<PropertyList>{
             "t", Array{"t", 1}, 7, hierarchyToken(7, 1), hierarchyToken(Array{"t"}, 1),
             hierarchyToken("t", "one"), hierarchyToken("t", -1), hierarchyToken("t", Levels::min()),
             hierarchyToken("t", 5), hierarchyToken("t", Levels::max()), hierarchyToken("", 1),
             Dictionary{}}) {
        const Session session = open({.sessionID = ++sessionID, .hierarchyToken = odd, .aggregates = true});
        EXPECT_EQ(idOf(session).size(), 24u) << sessionID;
    }
    EXPECT_THAT(idOf(open(place(2, "t", 1))), StartsWith(idOf(top) + "."));
}

TEST_F(Hierarchy, AGapCutsTheHigherAncestorsOff) {
    const Session top = open(place(1, "t", 0));
    const Session second = open(place(2, "t", 2));
    const Session third = open(place(3, "t", 3));
    const std::string id = idOf(second);
    EXPECT_EQ(id.size(), 24u);
    EXPECT_THAT(idOf(third), StartsWith(id + "."));
    expectLine(
        "<6>parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
        "parentSessionID is '" +
        id + "'");
    // Aggregation does not need consecutive levels.
    const Session aggregator = open(place(4, "t", 1, true));
    third->send(kBlacklisted, 1, {{"k", 1}});
    EXPECT_EQ(nextReport(aggregator).payload->integer("k"), 1);
}

TEST_F(Hierarchy, OnlyTheHighestAggregatorHears) {
    const Session child = open(place(2, "t", 1, true));
    child->send(kBlacklisted, 1);
    EXPECT_EQ(nextReport(child).type, 1);
    const Session parent = open(place(1, "t", 0, true));
    EXPECT_TRUE(child->nextDelivery().isEndMarker());
    child->send(kBlacklisted, 2, {{"k", 1}, {kTelvoraUserInfoClientName, "somebody else"}});
    const AggregatedMessage message = nextReport(parent);
    EXPECT_EQ(message.sessionInfo->integer(kTelvoraSessionInfoSessionID), 2);
    EXPECT_GT(message.timestamp, 0);
    EXPECT_EQ(message.type, 2);
    EXPECT_EQ(message.payload, (Dictionary{{"k", 1},
                                           {kTelvoraUserInfoClientName, "tester"},
                                           {kTelvoraUserInfoServiceName, "integration"}}));
}

TEST_F(Hierarchy, SurvivesClientsThatGoInTheMiddle) {
    const Session neighbour = open(place(1, "t", 1));
    ChildProcess aggregator({wordsOf(telvoractl("session --aggregate", 10, 0)), {}});
    ASSERT_TRUE(aggregator.output().waitForPart("{\"reportingStates\":[\"httpPost\"]}"));
    Session flooding = open(place(2, "t", 1));
    std::jthread flood([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            for (int i = 0; i < 64; ++i)
                flooding->beginSend(4, 1, {{"text", std::string(500, 'x')}});
            flooding->fetchStates();
        }
        for (int i = 0; i < 64; ++i)
            flooding->beginSend(4, 1, {{"text", "in flight at the end"}});
    });
    ASSERT_TRUE(aggregator.output().waitForPart("xxxx"));

    // While the callback runs: the end marker, at least, can't reach the client any more.
    const size_t from = daemon().logLineCount();
    aggregator.signal(SIGKILL);
    EXPECT_EQ(aggregator.waitForExit(), 128 + SIGKILL);
    expectEndOf(10);
    expectLineBeginning(kUnreachable, from);
    EXPECT_EQ(idOf(neighbour).size(), 49u);

    flood.request_stop();
    flood.join();
    close(flooding, 2);
    EXPECT_EQ(idOf(neighbour).size(), 49u);
    EXPECT_EQ(idOf(open(place(3, "t", 0))).size(), 24u);
}

TEST_F(Hierarchy, AnAggregatorThatStopsReadingDelaysNobody) {
    constexpr int kUntilFull = 500;  // 8 MB: more than may wait for one client
    const Session aggregator = open(place(1, "t", 0, true));
    const Session child = open(place(2, "t", 1));
    const Session neighbour = open({.sessionID = 3});

    auto reading = aggregator->stopReading();
    for (int i = 0; i < kUntilFull; ++i)
        child->send(kBlacklisted, 1, {{"text", std::string(16'000, 'x')}});
    expectLineBeginning(kUnreachable);
    EXPECT_EQ(idOf(neighbour).size(), 24u);
    EXPECT_EQ(idOf(child).size(), 49u);

    // Copies that were not dropped still arrive, aggregation continues, and the dropped copies are counted.
    reading.unlock();
    EXPECT_THAT(aggregator->fetchStates(), Optional(ElementsAre("httpPost")));
    child->send(kBlacklisted, 3);
    int64_t copies = 1;
    while (aggregator->nextDelivery().type != 3)
        ++copies;
    const Dictionary account = *status().dictionary("totals")->dictionary("aggregator");
    const int64_t dropped = account.dictionary("lost")->integer("tooManyPending").value_or(0);
    EXPECT_EQ(account.integer("delivered"), copies);
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(account.integer("accepted"), copies + dropped);
}

TEST_F(Hierarchy, TakesSessionsThatJoinAndLeaveAllAtOnce) {
    const Session top = open(place(5000, "t", 0));
    // Sessions on all levels join, report, and leave without goodbye.
    const auto churn = [this] {
        std::vector<Session> sessions;
        for (int64_t i = 0; i < 25; ++i) {
            sessions.push_back(
                std::make_unique<BlockingSession>(daemon().socketPath(), place(i, "t", i % 4, i % 10 == 0)));
            sessions.back()->beginStartConfig();
            for (uint16_t report = 0; report < 3; ++report)
                sessions.back()->beginSend(4, report, {{"n", i}});
        }
        for (const Session& session : sessions)
            session->fetchStates();
    };
    for (int round = 0; round < 2; ++round) {
        std::vector<std::jthread> clients;
        for (int i = 0; i < 4; ++i)
            clients.emplace_back(churn);
    }
    EXPECT_THAT(idOf(open(place(5001, "t", 1))), StartsWith(idOf(top) + "."));
}

// Tokens are not secret: another user's session with the same token must have no effect.
TEST_F(Hierarchy, OtherUsersMeetOnlyWhereTheAdministratorSaysSo) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    for (const bool meet : {false, true}) {
        stopDaemon();
        startDaemon([&](DaemonOptions& options) {
            if (meet) options.defaults = {{"sharedHierarchies", Array{PropertyList(Array{"root", 65534})}}};
        });
        letOthersIn();
        ChildProcess stranger({wordsOf(kAsNobody + telvoractl("session --aggregate", 10, 0)), {}});
        ASSERT_TRUE(stranger.output().waitForPart("{\"reportingStates\":[\"httpPost\"]}"));

        const Session child = open(place(1, "t", 1));
        const Session grandchild = open(place(2, "t", 2));
        EXPECT_EQ(idOf(child).size(), meet ? 49u : 24u);
        EXPECT_THAT(idOf(grandchild), StartsWith(idOf(child) + "."));
        child->send(kBlacklisted, 1, {{"text", "for the family only"}});
        if (!meet) {
            expectLine(
                "<6>updateCorrelatedSessions: Session 1 does not join other users' sessions with "
                "hierarchyToken t");
            stranger.signal(SIGTERM);  // ends the wait below
        }
        EXPECT_EQ(stranger.output().waitForPart("for the family only"), meet);
    }
}

TEST_F(Hierarchy, OneShotMessagesGiveTheirSessionTheirPlace) {
    const Session top = open(place(1, "t", 0));
    expectRun(telvoractl("oneshot --category 4 --type 7", 2, 1), 0, "finished");
    expectLine(
        "<7>updateCorrelatedSessions: Adding session 2 to list for hierarchyToken t with "
        "hierarchyLevel 1");
    // Its report has no combined ID, and its place is free again.
    expectEndOf(2);
    ASSERT_TRUE(waitForEvents(1));
    for (const Dictionary& event : reports().events())
        EXPECT_EQ(event.string("_sessionID"), nullptr);
    EXPECT_EQ(idOf(open(place(3, "t", 2))).size(), 24u);
}

}  // namespace
}  // namespace telvora::test
