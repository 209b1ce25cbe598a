// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <limits>

#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"

namespace telvora::test {
namespace {

// A bag whose one client is batched and reports, with a limit that no test here reaches.
Dictionary reportingBag() {
    return DaemonWorld::bagWithClient({{"filters", Array()},
                                       {"sampling_threshold", 1.0},
                                       {"locale_whitelist", "CH"},
                                       {"post_url", "https://reports.example/events"},
                                       {"expedite", 0},
                                       {"event_threshold", 1000}});
}

std::string dotted(std::initializer_list<const FakeConnection*> chain) {
    std::string ids;
    for (const FakeConnection* connection : chain) {
        ids += (ids.empty() ? "" : ".") + connection->session().sessionIDString();
    }
    return ids;
}

// What the agent tells of a session's ancestors, "" for nothing.
std::string parentOf(DaemonWorld& world, const std::shared_ptr<FakeConnection>& connection) {
    return world.agent.parentSessionIDStringForSession(connection->session()).value_or("");
}

TEST(AgentHierarchy, CombinesTheIDsOfAncestorsTopFirst) {
    DaemonWorld world;
    const auto top = world.connectConfigured(10, {{"t", 0}});
    const auto other = world.connectConfigured(20, {{"other", 0}});
    const auto middle = world.connectConfigured(11, {{"t", 1}});
    const auto laterMiddle = world.connectConfigured(15, {{"t", 1}});
    const auto bottom = world.connectConfigured(12, {{"t", 2}});
    EXPECT_EQ(parentOf(world, top), "");
    EXPECT_EQ(parentOf(world, middle), dotted({top.get()}));
    EXPECT_EQ(parentOf(world, bottom), dotted({top.get(), middle.get()}))
        << "the first of a level is the parent";
    EXPECT_EQ(parentOf(world, other), "");

    middle->invalidate();
    EXPECT_EQ(parentOf(world, bottom), dotted({top.get(), laterMiddle.get()}));
    laterMiddle->invalidate();
    EXPECT_EQ(parentOf(world, bottom), "") << "a gap right above";
}

TEST(AgentHierarchy, AGapKeepsTheNearerAncestors) {
    const LogCapture log;
    DaemonWorld world;
    const auto top = world.connectConfigured(1, {{"t", 0}});
    const auto second = world.connectConfigured(2, {{"t", 2}});
    const auto third = world.connectConfigured(3, {{"t", 3}});
    EXPECT_EQ(parentOf(world, third), dotted({second.get()}));
    EXPECT_TRUE(
        log.contains("<6>parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): "
                     "incomplete parentSessionID is '" +
                     second->session().sessionIDString() + "'"));
}

TEST(AgentHierarchy, OddTokensHarmNobody) {
    DaemonWorld world;
    const struct {
        const char* what;
        PropertyList token;
    } cases[] = {
        {"no dictionary", "text"},
        {"no token ID", Dictionary{{kTelvoraHierarchyTokenLevel, 3}}},
        {"a token ID of another type", Dictionary{{kTelvoraHierarchyTokenTokenID, 5}}},
        {"a negative level",
         Dictionary{{kTelvoraHierarchyTokenTokenID, "t"}, {kTelvoraHierarchyTokenLevel, -5}}},
        {"the lowest level", Dictionary{{kTelvoraHierarchyTokenTokenID, "t"},
                                        {kTelvoraHierarchyTokenLevel, std::numeric_limits<int64_t>::min()}}},
        {"a huge level",
         Dictionary{{kTelvoraHierarchyTokenTokenID, "t"}, {kTelvoraHierarchyTokenLevel, int64_t{1} << 62}}},
    };
    const auto top = world.connectConfigured(1, {{"t", 0}}, true);
    for (const auto& c : cases) {
        const auto connection = world.connect();
        Dictionary info = sessionInfoFor(2);
        info.set(kTelvoraSessionInfoHierarchyToken, c.token);
        connection->session().setSessionInfo(info, Dictionary{{kTelvoraUserInfoClientName, "c"}}, {}, false);
        EXPECT_EQ(parentOf(world, connection), "") << c.what;
        world.agent.updateDownstreamSessions(connection->session());
        connection->session().syncReportingStates();
        connection->invalidate();
    }
    EXPECT_EQ(parentOf(world, world.connectConfigured(3, {{"t", 1}})), dotted({top.get()}));
}

TEST(AgentHierarchy, AChangedTokenMovesTheSession) {
    DaemonWorld world;
    const auto top = world.connectConfigured(1, {{"a", 0}});
    const auto otherTop = world.connectConfigured(2, {{"b", 0}});
    const auto child = world.connectConfigured(3, {{"a", 1}});
    child->session().setSessionInfo(sessionInfoFor(3, {{"b", 1}}), std::nullopt, {}, false);
    EXPECT_EQ(parentOf(world, child), dotted({otherTop.get()}));
    const auto grandchild = world.connectConfigured(4, {{"a", 2}});
    EXPECT_EQ(parentOf(world, grandchild), "") << "the session is no longer in its old list";
}

TEST(AgentHierarchy, AGivenUpTokenDoesNotOutliveTheSession) {
    DaemonWorld world;
    const auto top = world.connectConfigured(1, {{"t", 0}});
    const std::weak_ptr<const TelvoradSession> session = top->session().weak_from_this();
    top->session().setSessionInfo(sessionInfoFor(1), std::nullopt, {}, false);
    top->invalidate();
    EXPECT_TRUE(session.expired());
    EXPECT_EQ(parentOf(world, world.connectConfigured(2, {{"t", 1}})), "");
}

TEST(AgentHierarchy, HeldReportsGoOutUnderTheCombinedID) {
    DaemonWorld world;
    world.serveBag(reportingBag());
    const auto child = world.connectConfigured(2, {{"t", 1}});
    child->session().sendMessageWithCategory(5, 1, Dictionary{{"k", "v"}}, [](const auto&) {});
    const auto top = world.connectConfigured(1, {{"t", 0}});
    child->session().flushMessagesWithCompletion({});
    const auto events = world.postedEvents();
    ASSERT_FALSE(events.empty());
    for (const Dictionary& event : events) {
        EXPECT_EQ(*event.string("_sessionID"), dotted({top.get(), child.get()}));
    }
}

TEST(AgentHierarchy, ChildrenFollowTheirParentsState) {
    const LogCapture log;
    DaemonWorld world;
    world.serveBag(reportingBag());
    const auto states = [](FakeConnection& connection) {
        std::optional<std::vector<std::string>> names;
        connection.session().fetchStatesWithUserInfo(*connection.session().userInfo(),
                                                     [&](auto answer) { names = std::move(answer); });
        return names;
    };
    const auto orphan = world.connectConfigured(2, {{"t", 1}});
    EXPECT_TRUE(
        log.contains("<6>syncReportingStates: child session 2 (backend httpPost) with hierarchy 1 is missing "
                     "its parent"));
    EXPECT_THAT(states(*orphan), testing::Optional(testing::ElementsAre("httpPost")));

    const auto top = world.connect();  // without a bag it has no backend for its child to follow
    top->session().setSessionInfo(sessionInfoFor(1, {{"t", 0}}),
                                  Dictionary{{kTelvoraUserInfoClientName, "c"}}, {}, false);
    world.agent.updateDownstreamSessions(top->session());
    EXPECT_THAT(states(*orphan), testing::Optional(testing::IsEmpty()));
}

TEST(AgentHierarchy, TheHighestAggregatorGetsEveryReportAndTheOthersAreToldOnce) {
    DaemonWorld world;
    world.serveBag(reportingBag());
    const auto child = world.connectConfigured(2, {{"t", 1}}, true);
    const auto top = world.connectConfigured(1, {{"t", 0}}, true);
    ASSERT_FALSE(child->session().hasAggregator());
    const auto toChild = child->deliveries();
    ASSERT_FALSE(toChild.empty());
    EXPECT_EQ(toChild.back().sessionInfo, std::nullopt);
    EXPECT_EQ(toChild.back().payload, std::nullopt);

    const size_t before = top->deliveries().size();
    child->session().sendMessageWithCategory(7, 9, Dictionary{{"k", 1}, {kTelvoraUserInfoClientName, "x"}},
                                             [](const auto&) {});
    child->session().sendMessageWithCategory(7, 10, std::nullopt, [](const auto&) {});
    const auto toTop = top->deliveries();
    ASSERT_EQ(toTop.size(), before + 2);
    EXPECT_EQ(toTop[before].sessionInfo->integer(kTelvoraSessionInfoSessionID), 2);
    EXPECT_EQ(toTop[before].type, 9);
    EXPECT_EQ(*toTop[before].payload->string(kTelvoraUserInfoClientName), "client") << "user info wins";
    EXPECT_EQ(toTop[before].payload->integer("k"), 1);
    EXPECT_EQ(toTop[before + 1].payload, std::nullopt) << "without payload, no user info either";
    EXPECT_EQ(child->deliveries().size(), toChild.size());

    top->invalidate();
    EXPECT_EQ(top->deliveries().back().sessionInfo, std::nullopt) << "one end marker, last";
}

}  // namespace
}  // namespace telvora::test
