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
    std::optional<std::string> parentOf(const FakeConnection& child) {
        return world.agent.hierarchies().parentSessionIDStringForSession(child.session());
    }

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

    // Invented tokens are forgotten once they fill 1 MiB.
    for (int i = 0; i < 2'100; ++i) {
        const std::string token = std::to_string(i) + std::string(500, 't');
        first->session().setSessionInfo(sessionInfoFor(1, {{token, 0}}), std::nullopt, {}, false);
    }
    world.connect();
    EXPECT_THAT(log.lines(),
                Contains(testing::ContainsRegex("proper entitlement, 2[(][0-9]?[0-9]?[0-9][)]")));
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
    for (const bool leavesItsHierarchyBefore : {false, true}) {
        const auto parent = world.connectConfigured(1, {{"token", 0}});
        const auto child = world.connectConfigured(2, {{"token", 1}});
        const std::weak_ptr<TelvoradSession> session = parent->session().weak_from_this();
        if (leavesItsHierarchyBefore)
            parent->session().setSessionInfo(sessionInfoFor(1), std::nullopt, {}, false);
        parent->invalidate();
        EXPECT_TRUE(session.expired());
        EXPECT_EQ(world.agent.sessionCount(), 1U);
        EXPECT_EQ(world.agent.sessionsAlive(), 1U);
        EXPECT_EQ(parentOf(*child), std::nullopt);
        EXPECT_FALSE(world.isIdle());
        world.agent.invalidateAllConnections();
        EXPECT_EQ(world.agent.sessionsAlive(), 0U);
        EXPECT_TRUE(world.isIdle());
    }
}

TEST_F(AgentRegistry, EachUsersRefusalsTakeALineAMinute) {
    std::chrono::steady_clock::time_point now;
    RefusalLog refusals([&now] { return now; });
    Peer peer;
    peer.pid = 7;
    for (const uid_t user : {5, 5, 5, 6}) {
        peer.uid = user;
        refusals.notEntitled(peer);
    }
    now += std::chrono::minutes(1);
    peer.uid = 5;
    refusals.notEntitled(peer);
    const auto line = [](const char* user, const char* others) {
        return std::string("<6>RefusalLog: refused pid 7, uid ") + user +
               ": not entitled, see telvorad.entitlements(5)" + others;
    };
    EXPECT_EQ(log.lines(),
              (std::vector{line("5", ""), line("6", ""), line("5", ", after 2 more of this user")}));
    log.clear();
    now += std::chrono::minutes(1);
    for (uint64_t i = 0; i < RefusalLog::kMostInASecond; ++i) {
        EXPECT_FALSE(refusals.refusesAtOnce(5));
        refusals.notEntitled(peer);
    }
    EXPECT_TRUE(refusals.refusesAtOnce(5));
    EXPECT_FALSE(refusals.refusesAtOnce(6));
    now += std::chrono::minutes(1);
    EXPECT_FALSE(refusals.refusesAtOnce(5));
    refusals.notEntitled(peer);
    EXPECT_EQ(log.lines(), (std::vector{line("5", ""), line("5", ", after 100 more of this user")}));
}

// --- Hierarchy ---

TEST_F(AgentTest, WhatASessionKeepsOfItsClientIsBounded) {
    const auto connection = world.connect();
    TelvoradSession& session = connection->session();
    Dictionary info = sessionInfoFor(1);
    const Dictionary user{{"name", "c"}}, large{{"name", std::string(70'000, 'x')}};
    session.setSessionInfo(info, user, {}, false);
    EXPECT_EQ(*session.sessionInfo(), info);
    session.setSessionInfo(sessionInfoFor(1, {{std::string(513, 't'), 0}}), large, {}, false);
    EXPECT_TRUE(session.sessionInfo()->empty());
    EXPECT_EQ(session.hierarchyToken(), std::nullopt);
    EXPECT_EQ(session.userInfo(), nullptr);
    info.merge(large);
    session.setSessionInfo(info, user, {}, false);
    EXPECT_TRUE(session.sessionInfo()->empty());
    session.fetchStatesWithUserInfo(large, {});
    EXPECT_EQ(*session.userInfo(), user) << "ignored";
    const auto users = world.quotas.uses();
    const auto& uses = users.begin()->second;
    EXPECT_THAT(uses[static_cast<size_t>(Quota::sessionBytes)].held,
                testing::AllOf(testing::Gt(0U), testing::Lt(1000U)));

    std::vector<std::shared_ptr<FakeConnection>> family;
    for (uint32_t i = 0; i <= SessionHierarchies::kMaxSessions; ++i)
        family.push_back(world.connectConfigured(i, {{"t", i == 0 ? 0 : 1}}));
    EXPECT_EQ(parentOf(*family[255]), family[0]->session().sessionIDString());
    EXPECT_EQ(parentOf(*family[256]), std::nullopt) << "one session too many";
}

// Its sessions hold their reports until a flush.
struct AgentHierarchy : AgentTest {
    AgentHierarchy() {
        world.serveBag(DaemonWorld::reportingBag({{"expedite", 0}, {"event_threshold", 1000}}));
    }
};

TEST_F(AgentHierarchy, HeldReportsGoOutUnderTheCombinedID) {
    const auto child = world.connectConfigured(2, {{"t", 1}});
    child->session().sendMessageWithCategory(5, 1, Dictionary{{"k", "v"}}, [](const auto&) {});
    const auto top = world.connectConfigured(1, {{"t", 0}});
    const std::string combined = top->session().sessionIDString() + "." + child->session().sessionIDString();
    child->invalidate();
    const auto events = world.postedEvents();
    ASSERT_EQ(events.size(), 3U);
    for (const size_t held : {0, 1})
        EXPECT_EQ(*events[held].string("_sessionID"), combined);
    EXPECT_EQ(events[2].integer("_status"), 1) << "the end leaves with the batch";
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

    world.random = 0.6;
    const struct {
        double parents, own;  // thresholds
        const char *state, *reason;
        double threshold;
    } cases[] = {
        {0.7, 0.8, "reporting", "parentFollowed", 0.7},
        {0.5, 0.8, "sampledOut", "parentFollowed", 0.5},
        {0.7, 0.5, "sampledOut", "sampledOut", 0.5}};  // a backend that is sampled out itself follows nobody
    for (const auto& c : cases) {
        const double thresholds[] = {c.parents, c.own, 0.8};
        std::shared_ptr<FakeConnection> family[3];
        for (const int level : {0, 1, 2}) {
            world.now += 100'000;  // the bag is stale by then
            world.serveBag(DaemonWorld::reportingBag({{"sampling_threshold", thresholds[level]}}));
            family[level] = world.connectConfigured(3, {{"sampled", level}});
        }
        const auto expectPolicy = [&](FakeConnection& session, const char* reason) {
            EXPECT_EQ(
                *session.session().status().dictionary("backends")->dictionary("httpPost"),
                (Dictionary{{"state", c.state}, {"reason", reason}, {"samplingThreshold", c.threshold}}));
        };
        expectPolicy(*family[1], c.reason);
        expectPolicy(*family[2], "parentFollowed");  // the level above, not the top
        EXPECT_THAT(states(*family[1]), testing::Optional(testing::ElementsAre("httpPost")));
        for (const auto& member : family)
            member->invalidate();
    }
}

TEST_F(AgentHierarchy, AggregatorsHearOfReportsWithoutAPayloadAndOfTheirOwnEnd) {
    const auto top = world.connectConfigured(1, {{"t", 0}}, true);
    const auto child = world.connectConfigured(2, {{"t", 1}}, true);
    child->session().sendMessageWithCategory(7, 10, std::nullopt, [](const auto&) {});
    EXPECT_EQ(top->deliveries().back().type, 10);
    EXPECT_EQ(top->deliveries().back().payload, std::nullopt) << "without payload, no user info either";
    EXPECT_EQ(child->deliveries().size(), 1U) << "its end marker: there is an aggregator above it";
    top->invalidate();
    EXPECT_EQ(top->deliveries().back().sessionInfo, nullptr) << "one end marker, last";
    child->invalidate();
    EXPECT_EQ(child->deliveries().size(), 1U);
}

TEST_F(AgentHierarchy, UsersShareTheirsAsTheAdministratorSays) {
    const struct {
        PropertyList setting;
        std::vector<uid_t> hierarchyUsers;  // of the users 5, 6, 7
    } cases[] = {
        {Array{}, {5, 6, 7}},
        {Array{PropertyList(Array{7, "5"})}, {5, 6, 5}},
        {Array{Array{6, 5}, Array{5, 7}}, {5, 5, 7}},  // the first that names a user counts
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
    std::shared_ptr<const Dictionary> storebagOf(const FakeConnection& connection) {
        std::shared_ptr<const Dictionary> storebag;
        world.agent.storebagForSession(connection.session(), [&](const auto& found) { storebag = found; });
        return storebag;
    }
};

TEST_F(AgentStorebags, ClientTypesOfOneBagShareItWhileItIsFresh) {
    const struct {
        double later;
        const char* served;
        size_t requests;
        const char* version;
        const char* before;  // how the status calls the bag
    } steps[] = {{0, "1", 1, "1", "none"},
                 {599, "2", 1, "1", "fresh"},
                 {1, "2", 2, "2", "stale"},        // exactly the maximum age
                 {-10000, "3", 3, "3", "stale"}};  // a clock that was set back makes the bag old
    const std::shared_ptr<FakeConnection> connections[] = {connect(6), connect(15)};
    for (const auto& step : steps) {
        world.now += step.later;
        const Array status = world.agent.storebagStatus();
        EXPECT_EQ(status.empty() ? "none" : *status[0].getIf<Dictionary>()->string("state"), step.before);
        world.serveBag(bagOfVersion(step.served, 600));
        for (const auto& connection : connections) {
            EXPECT_TRUE(storebagOf(*connection));
            EXPECT_EQ(world.agent.storebagVersionForSession(connection->session()), step.version);
        }
        EXPECT_EQ(world.bagRequests(), step.requests);
    }
    EXPECT_EQ(log.count("<7>storebagForSession: Cached storebag found for client type 15"), 4U);
    EXPECT_EQ(log.count("<7>fetchAndCacheStorebag: Storebag max age: 600 seconds"), 3U);

    const HttpResult dated =
        FakeHttpClient::response(200, signedDocument(bagOfVersion("4", 600)), {{"Last-Modified", "then"}});
    world.http.setHandler([&dated](const HttpRequest&) { return dated; });
    for (const char* since : {"", "then"}) {
        world.now += 600;
        storebagOf(*connections[0]);
        EXPECT_EQ(headerOf(world.http.requests().back(), "If-Modified-Since"), since);
    }
}

TEST_F(AgentStorebags, TypesWithoutANameShareABagButNotTheFailuresOfTypeZero) {
    world.serveBag(bagOfVersion("1", 600));
    EXPECT_FALSE(storebagOf(*connect(0)));
    EXPECT_EQ(world.bagRequests(), 0U);
    for (const int type : {1, 4, 19})
        EXPECT_TRUE(storebagOf(*connect(type))) << type;
    EXPECT_EQ(world.bagRequests(), 1U);
    EXPECT_FALSE(storebagOf(*connect(0)));
    EXPECT_EQ(
        log.count("<6>storebagForSession: Not fetching storebag for client type 0 - must wait 900 seconds "
                  "between attempts"),
        1U);
}

TEST_F(AgentStorebags, ARefreshFetchesTheKnownBagsWhateverTheirAge) {
    size_t refreshed = 0;
    const auto refresh = [&] { world.agent.refreshStorebags([&] { ++refreshed; }); };
    refresh();
    world.serveBag(bagOfVersion("1", 600));
    const auto five = connect(5), six = connect(6);
    for (const auto& each : {five, six, connect(0)})
        storebagOf(*each);
    world.serveBag(bagOfVersion("2", 600));
    refresh();
    EXPECT_EQ(refreshed, 2U);
    EXPECT_EQ(world.bagRequests(), 4U);
    EXPECT_EQ(world.agent.storebagVersionForSession(six->session()), "2");
    world.serveBag(std::nullopt);  // the last good bag stays
    refresh();
    EXPECT_TRUE(storebagOf(*five));
    EXPECT_EQ(world.bagRequests(), 6U);
    world.serveBag(bagOfVersion("3", 600));  // also while the daemon would wait
    refresh();
    EXPECT_EQ(world.agent.storebagVersionForSession(five->session()), "3");
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
        EXPECT_EQ(storebagOf(*client) != nullptr, step.hasBag);
        EXPECT_EQ(world.bagRequests(), step.requests);
    }
    EXPECT_EQ(log.count("<3>fetchAndCacheStorebag: Unable to fetch storebag for client type 5"), 3U);
    EXPECT_EQ(
        log.count("<6>storebagForSession: Not fetching storebag for client type 5 - must wait 900 seconds "
                  "between attempts"),
        2U);
}

TEST_F(AgentStorebags, RequestsWaitInOrderForTheFetchesBeforeThem) {
    std::string order;
    const auto request = [&](const FakeConnection& connection, char mark) {
        world.agent.storebagForSession(
            connection.session(), [&order, mark](const auto& storebag) { order += storebag ? mark : '-'; });
    };
    const auto first = connect(5);
    const auto other = connect(6);
    world.http.setHandler({});
    request(*first, '1');
    request(*first, '2');
    request(*other, '3');
    request(*first, '4');
    EXPECT_EQ(world.bagRequests(), 1U) << "one fetch at a time";
    const auto answer = FakeHttpClient::response(200, signedDocument(bagOfVersion("1", 600)));
    // Further calls of the sessions of hierarchies wait, too.
    const auto member = world.connect();
    member->session().setSessionInfo(sessionInfoFor(1, {{"t", 0}}), std::nullopt, {}, false);
    const auto mayCall = [&](FakeConnection& connection, bool resumed) {
        return connection.mayHandle(resumed, [&order] { order += 'r'; });
    };
    EXPECT_TRUE(mayCall(*first, false));
    EXPECT_TRUE(mayCall(*member, true)) << "it has waited once";
    EXPECT_FALSE(mayCall(*member, false));
    world.http.complete(answer);
    EXPECT_EQ(order, "12");
    EXPECT_EQ(world.bagRequests(), 2U);
    world.http.complete(FakeHttpClient::failure("down"));
    EXPECT_EQ(order, "12-4r");
    EXPECT_TRUE(mayCall(*member, false));
    EXPECT_EQ(world.bagRequests(), 2U);
}

}  // namespace
}  // namespace telvora::test
