// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "daemon/telvorad_agent.h"
#include "session/shared_hierarchies.h"
#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"
#include "tests/support/signed_document.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::HasSubstr;

struct AgentTest : testing::Test {
    LogCapture log;
    DaemonWorld world;
};

// --- Registry ---

using AgentRegistry = AgentTest;

TEST_F(AgentRegistry, CountsSessionsAndHierarchiesBeforeTheNewOne) {
    const auto first = world.connect();
    EXPECT_TRUE(first->resumed());
    first->session().setSessionInfo(sessionInfoFor(1, {{"token", 0}}), std::nullopt, {}, false);
    const auto second = world.connect();
    EXPECT_THAT(log.lines(), Contains(HasSubstr("proper entitlement, 0(0) connections.")));
    EXPECT_THAT(log.lines(), Contains(HasSubstr("proper entitlement, 1(1) connections.")));
    EXPECT_EQ(world.agent.sessionCount(), 2U);
}

TEST_F(AgentRegistry, OnlyATrueEntitlementLetsAPeerIn) {
    const std::pair<PropertyList, bool> cases[] = {{true, true}, {false, false}, {1, true},       {0, false},
                                                   {"", false},  {"no", false},  {Array{}, false}};
    for (const auto& [value, accepted] : cases) {
        log.clear();
        const Dictionary file{{"Entitlements", Dictionary{{"com.zandor.private.telvorad", value}}}};
        world.directory.write("config/entitlements.d/zz.plist", serialized(file));
        const auto connection = world.connect();
        EXPECT_EQ(world.agent.sessionCount(), accepted ? 1U : 0U);
        EXPECT_EQ(
            log.contains("<7>listener: new XPC connection fake does not have required telvora entitlement. "
                         "Closing connection..."),
            !accepted);
        connection->invalidate();
    }
}

TEST_F(AgentRegistry, AnEndedConnectionLeavesNothingBehind) {
    const auto parent = world.connectConfigured(1, {{"token", 0}});
    const auto child = world.connectConfigured(2, {{"token", 1}});
    const auto third = world.connect();
    const std::weak_ptr<TelvoradSession> session = parent->session().weak_from_this();
    parent->invalidate();
    EXPECT_TRUE(session.expired());
    EXPECT_EQ(world.agent.sessionCount(), 2U);
    EXPECT_EQ(world.agent.sessionsAlive(), 2U);
    EXPECT_EQ(world.agent.hierarchies().parentSessionIDStringForSession(child->session()), std::nullopt);
    world.agent.invalidateAllConnections();
    EXPECT_EQ(world.agent.sessionsAlive(), 0U);
}

// --- Hierarchy ---

// Its sessions hold their reports until a flush.
struct AgentHierarchy : AgentTest {
    AgentHierarchy() {
        world.serveBag(DaemonWorld::reportingBag({{"expedite", 0}, {"event_threshold", 1000}}));
    }
};

TEST_F(AgentHierarchy, AGivenUpTokenDoesNotOutliveTheSession) {
    const auto top = world.connectConfigured(1, {{"t", 0}});
    const std::weak_ptr<const TelvoradSession> session = top->session().weak_from_this();
    top->session().setSessionInfo(sessionInfoFor(1), std::nullopt, {}, false);
    top->invalidate();
    EXPECT_TRUE(session.expired());
    const auto child = world.connectConfigured(2, {{"t", 1}});
    EXPECT_EQ(world.agent.hierarchies().parentSessionIDStringForSession(child->session()), std::nullopt);
}

TEST_F(AgentHierarchy, HeldReportsGoOutUnderTheCombinedID) {
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

TEST_F(AgentHierarchy, ChildrenFollowTheirParentsState) {
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

    const auto top = world.connect();  // has no bag, so no backend for its child to follow
    top->session().setSessionInfo(sessionInfoFor(1, {{"t", 0}}),
                                  Dictionary{{kTelvoraUserInfoClientName, "c"}}, {}, false);
    world.agent.hierarchies().updateDownstreamSessions(top->session());
    EXPECT_THAT(states(*orphan), testing::Optional(testing::IsEmpty()));
}

TEST_F(AgentHierarchy, AggregatorsHearOfReportsWithoutAPayloadAndOfTheirOwnEnd) {
    const auto top = world.connectConfigured(1, {{"t", 0}}, true);
    const auto child = world.connectConfigured(2, {{"t", 1}}, true);
    child->session().sendMessageWithCategory(7, 10, std::nullopt, [](const auto&) {});
    EXPECT_EQ(top->deliveries().back().type, 10);
    EXPECT_EQ(top->deliveries().back().payload, std::nullopt) << "without payload, no user info either";
    top->invalidate();
    EXPECT_EQ(top->deliveries().back().sessionInfo, nullptr) << "one end marker, last";
}

TEST_F(AgentHierarchy, UsersShareTheirsAsTheAdministratorSays) {
    const struct {
        PropertyList setting;
        std::vector<uid_t> hierarchyUsers;  // of the users 5, 6, 7
    } cases[] = {
        {Array{}, {5, 6, 7}},
        {Array{PropertyList(Array{7, "5"})}, {5, 6, 5}},
        {Array{Array{6, 7}, Array{5, 6}}, {5, 6, 6}},  // the first that names a user counts
        {Array{PropertyList(Array{7, 6, 5, 8})}, {5, 5, 5}},
        {Array{Array{7, 5}, Array{6, -1}}, {5, 6, 7}},  // an invalid list is ignored
        {Array{7, 5}, {5, 6, 7}},
        {"7,5", {5, 6, 7}},
    };
    for (const auto& [setting, hierarchyUsers] : cases) {
        world.directory.write("config/Preferences/com.zandor.telvora.plist",
                              serialized(Dictionary{{"sharedHierarchies", setting}}));
        std::vector<uid_t> found;
        for (const uid_t user : {5, 6, 7})
            found.push_back(hierarchyUserOf(user, world.defaults));
        EXPECT_EQ(found, hierarchyUsers) << setting.shapeDescription();
    }
    world.directory.write("config/Preferences/com.zandor.telvora.plist", serialized(Dictionary()));
    ASSERT_TRUE(
        world.defaults.set(kTelvoraDefaultsDomain, "sharedHierarchies", Array{PropertyList(Array{5, 7})}));
    EXPECT_EQ(hierarchyUserOf(7, world.defaults), 7u) << "the daemon's own file has no say";
}

// --- Bags ---

Dictionary bagOfVersion(const char* version, int refreshCycle) {
    return {{"version", version},
            {"refresh_cycle", refreshCycle},
            {"release", Dictionary{{"unknown", Dictionary()}}}};
}

struct AgentStorebags : AgentTest {
    std::shared_ptr<FakeConnection> connect(int clientType) {
        auto connection = world.connect();
        connection->session().setSessionInfo(
            {{kTelvoraSessionInfoSessionID, 5}, {kTelvoraSessionInfoClientType, clientType}}, std::nullopt,
            {}, false);
        return connection;
    }
};

TEST_F(AgentStorebags, ClientTypesOfOneBagShareItWhileItIsFresh) {
    const struct {
        double later;
        const char* served;
        size_t requests;
        const char* version;
    } steps[] = {{0, "1", 1, "1"},
                 {599, "2", 1, "1"},
                 {1, "2", 2, "2"},        // exactly the maximum age: stale
                 {-10000, "3", 3, "3"}};  // a clock that was set back makes the bag old
    const std::shared_ptr<FakeConnection> connections[] = {connect(6), connect(15)};
    for (const auto& step : steps) {
        world.now += step.later;
        world.serveBag(bagOfVersion(step.served, 600));
        for (const auto& connection : connections) {
            EXPECT_TRUE(world.agent.storebagForSession(connection->session()));
            EXPECT_EQ(world.agent.storebagVersionForSession(connection->session()), step.version);
        }
        EXPECT_EQ(world.bagRequests(), step.requests);
    }
    EXPECT_EQ(log.count("<7>storebagForSession: Cached storebag found for client type 15"), 4U);
    EXPECT_EQ(log.count("<7>fetchAndCacheStorebag: Storebag max age: 600 seconds"), 3U);
}

TEST_F(AgentStorebags, TypesWithoutANameShareABagButNotTheFailuresOfTypeZero) {
    world.serveBag(bagOfVersion("1", 600));
    EXPECT_FALSE(world.agent.storebagForSession(connect(0)->session()));
    EXPECT_EQ(world.bagRequests(), 0U);
    for (const int type : {1, 4, 19})
        EXPECT_TRUE(world.agent.storebagForSession(connect(type)->session())) << type;
    EXPECT_EQ(world.bagRequests(), 1U);
    EXPECT_FALSE(world.agent.storebagForSession(connect(0)->session()));
    EXPECT_EQ(
        log.count("<6>storebagForSession: Not fetching storebag for client type 0 - must wait 900 seconds "
                  "between attempts"),
        1U);
}

TEST_F(AgentStorebags, AFailingServerIsAskedEvery900SecondsAndTheOldBagServesOn) {
    const struct {
        double later;
        bool served;
        size_t requests;
        bool hasBag;
    } steps[] = {{0, false, 1, false},  {899, true, 1, false}, {1, true, 2, true},
                 {100, false, 3, true}, {899, true, 3, true},  {1, false, 4, true}};
    const auto client = connect(5);
    for (const auto& step : steps) {
        world.now += step.later;
        world.serveBag(step.served ? std::optional(bagOfVersion("1", 100)) : std::nullopt);
        EXPECT_EQ(world.agent.storebagForSession(client->session()) != nullptr, step.hasBag);
        EXPECT_EQ(world.bagRequests(), step.requests);
    }
    EXPECT_EQ(log.count("<3>fetchAndCacheStorebag: Unable to fetch storebag for client type 5"), 3U);
    EXPECT_EQ(
        log.count("<6>storebagForSession: Not fetching storebag for client type 5 - must wait 900 seconds "
                  "between attempts"),
        2U);
}

}  // namespace
}  // namespace telvora::test
