// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"

namespace telvora::test {
namespace {

Dictionary bagOfVersion(const char* version, int refreshCycle) {
    return {{"version", version},
            {"refresh_cycle", refreshCycle},
            {"release", Dictionary{{"unknown", Dictionary()}}}};
}

std::shared_ptr<FakeConnection> connectWithType(DaemonWorld& world, int clientType) {
    auto connection = world.connect();
    connection->session().setSessionInfo(
        {{kTelvoraSessionInfoSessionID, 5}, {kTelvoraSessionInfoClientType, clientType}}, std::nullopt, {},
        false);
    return connection;
}

TEST(AgentStorebags, ClientTypesOfOneBagShareItWhileItIsFresh) {
    const LogCapture log;
    DaemonWorld world;
    world.serveBag(bagOfVersion("1", 600));
    const auto a = connectWithType(world, 6);
    const auto b = connectWithType(world, 15);
    const auto bag = world.agent.storebagForSession(a->session());
    ASSERT_TRUE(bag);
    world.now += 599;
    EXPECT_EQ(world.agent.storebagForSession(b->session()), bag);
    EXPECT_EQ(world.bagRequests(), 1U);
    EXPECT_EQ(log.count("<7>storebagForSession: Cached storebag found for client type 15"), 1U);
    EXPECT_EQ(log.count("<7>fetchAndCacheStorebag: Storebag max age: 600 seconds"), 1U);

    world.now += 1;  // exactly the maximum age: stale
    world.serveBag(bagOfVersion("2", 600));
    world.agent.storebagForSession(b->session());
    EXPECT_EQ(world.bagRequests(), 2U);
    EXPECT_EQ(world.agent.storebagVersionForSession(a->session()), "2");

    world.now -= 10000;  // a clock that was set back makes the bag old
    world.agent.storebagForSession(b->session());
    EXPECT_EQ(world.bagRequests(), 3U);
}

TEST(AgentStorebags, AFailingServerIsAskedEvery900SecondsAndTheOldBagServesOn) {
    const LogCapture log;
    DaemonWorld world;
    const auto client = connectWithType(world, 5);
    EXPECT_EQ(world.agent.storebagForSession(client->session()), nullptr);
    EXPECT_TRUE(log.contains("<3>fetchAndCacheStorebag: Unable to fetch storebag for client type 5"));
    world.now += 899;
    EXPECT_EQ(world.agent.storebagForSession(client->session()), nullptr);
    EXPECT_EQ(world.bagRequests(), 1U);
    EXPECT_TRUE(
        log.contains("<6>storebagForSession: Not fetching storebag for client type 5 - must wait 900 seconds "
                     "between attempts"));

    world.now += 1;
    world.serveBag(bagOfVersion("1", 100));
    const auto bag = world.agent.storebagForSession(client->session());
    ASSERT_TRUE(bag);

    world.now += 100;
    world.serveBag(std::nullopt);
    EXPECT_EQ(world.agent.storebagForSession(client->session()), bag);
    world.now += 899;
    EXPECT_EQ(world.agent.storebagForSession(client->session()), bag);
    EXPECT_EQ(world.bagRequests(), 3U);
    world.now += 1;
    EXPECT_EQ(world.agent.storebagForSession(client->session()), bag);
    EXPECT_EQ(world.bagRequests(), 4U);
}

}  // namespace
}  // namespace telvora::test
