// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"

namespace telvora::test {
namespace {

// Has sessions hold their reports until a flush.
const Dictionary kBatched{{"expedite", 0}, {"event_threshold", 1000}};

TEST(AgentHierarchy, AGivenUpTokenDoesNotOutliveTheSession) {
    DaemonWorld world;
    const auto top = world.connectConfigured(1, {{"t", 0}});
    const std::weak_ptr<const TelvoradSession> session = top->session().weak_from_this();
    top->session().setSessionInfo(sessionInfoFor(1), std::nullopt, {}, false);
    top->invalidate();
    EXPECT_TRUE(session.expired());
    const auto child = world.connectConfigured(2, {{"t", 1}});
    EXPECT_EQ(world.agent.parentSessionIDStringForSession(child->session()), std::nullopt);
}

TEST(AgentHierarchy, HeldReportsGoOutUnderTheCombinedID) {
    DaemonWorld world;
    world.serveBag(DaemonWorld::reportingBag(kBatched));
    const auto child = world.connectConfigured(2, {{"t", 1}});
    child->session().sendMessageWithCategory(5, 1, Dictionary{{"k", "v"}}, [](const auto&) {});
    const auto top = world.connectConfigured(1, {{"t", 0}});
    child->session().flushMessagesWithCompletion({});
    const std::string combined = top->session().sessionIDString() + "." + child->session().sessionIDString();
    const auto events = world.postedEvents();
    ASSERT_FALSE(events.empty());
    for (const Dictionary& event : events)
        EXPECT_EQ(*event.string("_sessionID"), combined);
}

TEST(AgentHierarchy, ChildrenFollowTheirParentsState) {
    const LogCapture log;
    DaemonWorld world;
    world.serveBag(DaemonWorld::reportingBag(kBatched));
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

TEST(AgentHierarchy, AggregatorsHearOfReportsWithoutAPayloadAndOfTheirOwnEnd) {
    DaemonWorld world;
    world.serveBag(DaemonWorld::reportingBag(kBatched));
    const auto top = world.connectConfigured(1, {{"t", 0}}, true);
    const auto child = world.connectConfigured(2, {{"t", 1}}, true);
    child->session().sendMessageWithCategory(7, 10, std::nullopt, [](const auto&) {});
    EXPECT_EQ(top->deliveries().back().type, 10);
    EXPECT_EQ(top->deliveries().back().payload, std::nullopt) << "without payload, no user info either";
    top->invalidate();
    EXPECT_EQ(top->deliveries().back().sessionInfo, std::nullopt) << "one end marker, last";
}

}  // namespace
}  // namespace telvora::test
