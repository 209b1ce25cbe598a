// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"
#include "tests/support/signed_document.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::HasSubstr;

TEST(AgentRegistry, CountsSessionsAndHierarchiesBeforeTheNewOne) {
    const LogCapture log;
    DaemonWorld world;
    const auto first = world.connect();
    EXPECT_TRUE(first->resumed());
    first->session().setSessionInfo(sessionInfoFor(1, {{"token", 0}}), std::nullopt, {}, false);
    const auto second = world.connect();
    EXPECT_THAT(log.lines(), Contains(HasSubstr("proper entitlement, 0(0) connections.")));
    EXPECT_THAT(log.lines(), Contains(HasSubstr("proper entitlement, 1(1) connections.")));
    EXPECT_EQ(world.agent.sessionCount(), 2U);
}

TEST(AgentRegistry, OnlyATrueEntitlementLetsAPeerIn) {
    const std::pair<PropertyList, bool> cases[] = {{true, true}, {false, false}, {1, true},       {0, false},
                                                   {"", false},  {"no", false},  {Array{}, false}};
    for (const auto& [value, accepted] : cases) {
        const LogCapture log;
        DaemonWorld world;
        const Dictionary file{{"Entitlements", Dictionary{{"com.zandor.private.telvorad", value}}}};
        world.directory.write("config/entitlements.d/zz.plist", serialized(file));
        const auto connection = world.connect();
        EXPECT_EQ(world.agent.sessionCount(), accepted ? 1U : 0U);
        EXPECT_EQ(
            log.contains("<7>listener: new XPC connection fake does not have required telvora entitlement. "
                         "Closing connection..."),
            !accepted);
    }
}

TEST(AgentRegistry, AnEndedConnectionLeavesNothingBehind) {
    DaemonWorld world;
    const auto parent = world.connectConfigured(1, {{"token", 0}});
    const auto child = world.connectConfigured(2, {{"token", 1}});
    const auto third = world.connect();
    const std::weak_ptr<TelvoradSession> session = parent->session().weak_from_this();
    parent->invalidate();
    EXPECT_TRUE(session.expired());
    EXPECT_EQ(world.agent.sessionCount(), 2U);
    EXPECT_EQ(world.agent.sessionsAlive(), 2U);
    EXPECT_EQ(world.agent.parentSessionIDStringForSession(child->session()), std::nullopt);
    world.agent.invalidateAllConnections();
    EXPECT_EQ(world.agent.sessionsAlive(), 0U);
}

}  // namespace
}  // namespace telvora::test
