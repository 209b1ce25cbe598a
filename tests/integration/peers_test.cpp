// SPDX-License-Identifier: Apache-2.0
//
// Peers on the daemon's socket: those without the entitlement, and one that does not use the library.
#include <gmock/gmock.h>

#include "telvora/keys.h"
#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/expect_run.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

class Peers : public DaemonFixture {};

TEST_F(Peers, WithoutTheEntitlementAreHungUpOn) {
    startDaemon([&](DaemonOptions& options) { options.entitlement.reset(); });
    EXPECT_THROW(BlockingSession(daemon().socketPath()), std::runtime_error);
    expectLineBeginning("<7>listener: new XPC connection ");
    EXPECT_THAT(daemon().logLines(), Each(Not(HasSubstr("initWithSessionDelegate"))));

    // Both ends learn the reason, the administrator once a minute.
    expectRun(wordsOf(TELVORACTL_PATH " flush --client-type 8 --socket " + daemon().socketPath()), 3,
              "not entitled (telvorad.entitlements(5))");
    EXPECT_THAT(daemon().logLines(), Contains(testing::StartsWith("<6>RefusalLog: refused pid ")).Times(1));
}

TEST_F(Peers, MayBeWrittenBySomebodyElse) {
    laboratory().setBag("dravik", openBag());
    startDaemon();
    // Only its exit status counts: GLib warns on standard error about the end of its connections.
    expectRun({"/usr/bin/python3", TELVORA_GDBUS_CLIENT, daemon().socketPath()}, 0);

    // Start, two reports and finish in one batch, and the end message at the connection's end.
    EXPECT_TRUE(waitForEvents(5));
    const std::vector<Dictionary> events = reports().events();
    const auto report = std::find_if(events.begin(), events.end(), [](const Dictionary& event) {
        return event.integer("_method") == 5 && event.integer("_status") == 6;
    });
    ASSERT_NE(report, events.end());
    EXPECT_EQ(*report->string("text"), "grüezi");
    EXPECT_EQ(*report->find("huge"), PropertyList(~uint64_t{0}));
    EXPECT_EQ(report->real("date"), 1000.5);
    EXPECT_EQ(*report->string(kTelvoraUserInfoClientName), "gdbus");
    for (const char* container : {"data", "list", "tree"})
        EXPECT_FALSE(report->contains(container)) << container;
}

}  // namespace
}  // namespace telvora::test
