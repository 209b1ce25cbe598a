// SPDX-License-Identifier: Apache-2.0
//
// The daemon under its service manager: started by a connection, exiting when idle or stopped, and refusing
// to start. Peers on its socket: those without the entitlement, and one that does not use the library.

#include <csignal>

#include "telvora/keys.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Service = DaemonFixture;

TEST_F(Service, StartsWithItsFirstConnectionEndsWhenIdleAndLosesNothing) {
    for (int64_t life = 1; life <= 2; ++life) {
        launchDaemon([](DaemonOptions& options) {
            options.defaults.set("idleMilliseconds", 2000);
            options.socketActivation = true;
        });
        ASSERT_TRUE(daemon().waitUntilActivatable());
        {
            const auto session = open();
            for (int64_t n = 0; n < 10; ++n)
                EXPECT_EQ(session->send(1, 1, {{"life", life}, {"n", n}}), std::nullopt);
        }
        awaitDaemonsEnd();
        // with the session's start and end
        EXPECT_EQ(reports().eventCount(), static_cast<size_t>(12 * life));
    }
}

TEST_F(Service, TellsWhyItDoesNotStart) {
    const auto barred = directory().write("barred", "no folder");
    const std::pair<const char*, const char*> lacking[] = {
        {"landlock_create_ruleset", "the kernel has no Landlock: it needs Linux "},
        {"seccomp", "seccomp(2): Function not implemented; the kernel lacks it"}};
    for (const auto& [call, reason] : lacking) {
        launchDaemon([call = call](DaemonOptions& options) {
            options.launcher = {TELVORA_WITHOUT_SYSTEM_CALL, call};
        });
        expectLineBeginning(std::string("<3>main: sandbox_init() fails: ") + reason);
        awaitDaemonsEnd(255);
    }
    launchDaemon([&](DaemonOptions& options) { options.frameworkDirectory = barred; });
    expectLine("<3>main: can't read the framework folder " + barred.string() + ": Not a directory");
    awaitDaemonsEnd(1);
}

TEST_F(Service, EndsWhenTheLastReportIsOutOrAtOnceWhenToldTwiceAndTellsWhatIsLost) {
    for (const bool twice : {false, true}) {
        startDaemon([](DaemonOptions& options) { options.defaults.set("shutdownMilliseconds", 3'600'000); });
        reports().setFault(lab::ReportingFault::hold);
        const size_t eventsBefore = reports().eventCount(), messagesBefore = reports().messageCount();
        const auto session = open();
        session->send(4, 1, {{"a", 1}});
        session->beginFlush();
        ASSERT_TRUE(reports().waitForMessages(messagesBefore + 1, kPatience));
        const size_t from = daemon().logLineCount();
        daemon().signal(SIGTERM);
        expectLineBeginning("<7>HTTPSPostBackend(sendMessage): Batching ", from);
        expectLineBeginning("<7>internalSendMessage: ", from);
        // two of the reports are the session's start and end
        if (twice) {
            daemon().signal(SIGTERM);
            expectLine("<4>main: 3 reports lost of 3 accepted");
        } else {
            reports().setFault(lab::ReportingFault::none);
            reports().releaseHeld();
        }
        awaitDaemonsEnd();
        EXPECT_TRUE(twice || reports().eventCount() == eventsBefore + 3);
    }
    reports().releaseHeld();
}

TEST_F(Service, ReadsItsLogLevelAnewAtSIGHUP) {
    startDaemon();
    const auto preferences = directory().path() / "config" / "Preferences" / "com.zandor.telvora.plist";
    std::filesystem::remove(preferences);
    daemon().signal(SIGHUP);
    expectLine("<6>main: Logging up to level 6");
    const size_t from = daemon().logLineCount();
    BlockingSession(daemon().socketPath()).fetchStates();
    daemon().signal(SIGHUP);
    expectLine("<6>main: Logging up to level 6", from);
    EXPECT_THAT(daemon().logLines(), Each(Not(StartsWith("<7>"))));
}

using Peers = DaemonFixture;

TEST_F(Peers, WithoutTheEntitlementAreHungUpOn) {
    startDaemon([&](DaemonOptions& options) { options.entitlement.reset(); });
    for (int attempt = 0; attempt < 2; ++attempt)  // logged once a minute
        EXPECT_THROW(BlockingSession(daemon().socketPath()), std::runtime_error);
    EXPECT_THAT(daemon().logLines(), Contains(StartsWith("<6>RefusalLog: refused pid ")).Times(1));
    EXPECT_THAT(daemon().logLines(), Each(Not(HasSubstr("initWithSessionDelegate"))));
}

TEST_F(Peers, MayBeWrittenBySomebodyElse) {
    startDaemon();
    // Only its exit status counts: GLib warns on standard error about the end of its connections.
    expectRun("/usr/bin/python3 " TELVORA_GDBUS_CLIENT " " + daemon().socketPath(), 0);

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
