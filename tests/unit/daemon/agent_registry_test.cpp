// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <fstream>

#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"

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
    const struct {
        const char* value;
        bool accepted;
    } cases[] = {{"<true/>", true},
                 {"<false/>", false},
                 {"<integer>1</integer>", true},
                 {"<integer>0</integer>", false},
                 {"<string></string>", false},
                 {"<string>no</string>", false},
                 {"<array/>", false}};
    for (const auto& c : cases) {
        const LogCapture log;
        DaemonWorld world;
        std::ofstream(world.directory.path() / "config/entitlements.d/zz.plist")
            << "<plist "
               "version=\"1.0\"><dict><key>Entitlements</key><dict><key>com.zandor.private.telvorad</key>"
            << c.value << "</dict></dict></plist>";
        const auto connection = world.connect();
        EXPECT_EQ(world.agent.sessionCount(), c.accepted ? 1U : 0U) << c.value;
        EXPECT_EQ(
            log.contains("<7>listener: new XPC connection fake does not have required telvora entitlement. "
                         "Closing connection..."),
            !c.accepted)
            << c.value;
    }
}

TEST(AgentRegistry, AnEndedConnectionLeavesNothingBehind) {
    DaemonWorld world;
    const auto parent = world.connectConfigured(1, {{"token", 0}});
    const auto child = world.connectConfigured(2, {{"token", 1}});
    const std::weak_ptr<TelvoradSession> session = parent->session().weak_from_this();
    parent->invalidate();
    EXPECT_TRUE(session.expired());
    EXPECT_EQ(world.agent.sessionCount(), 1U);
    EXPECT_EQ(world.agent.sessionsAlive(), 1U);
    EXPECT_EQ(world.agent.parentSessionIDStringForSession(child->session()), std::nullopt);
}

TEST(AgentRegistry, AllConnectionsCanBeEndedAtOnce) {
    DaemonWorld world;
    const auto first = world.connect();
    const auto second = world.connect();
    world.agent.invalidateAllConnections();
    EXPECT_EQ(world.agent.sessionsAlive(), 0U);
}

}  // namespace
}  // namespace telvora::test
