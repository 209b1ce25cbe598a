// SPDX-License-Identifier: Apache-2.0
//
// The daemon under its service manager: started by a connection, exiting when idle or stopped, and refusing
// to start.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using testing::Each;
using testing::Not;
using testing::StartsWith;

class Service : public DaemonFixture {
  protected:
    std::string socket() const { return directory().path() / "run" / "com.zandor.telvorad"; }
};

TEST_F(Service, StartsWithItsFirstConnectionEndsWhenIdleAndLosesNothing) {
    laboratory().setBag("dravik", openBag());
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
    const auto barred = directory().path() / "barred";
    std::ofstream(barred) << "no folder";
    const struct {
        const char* what;
        std::function<void(DaemonOptions&)> change;
        std::string line;
        int status;
    } cases[] = {
        {"no Landlock",
         [](DaemonOptions& options) {
             options.launcher = {TELVORA_WITHOUT_SYSTEM_CALL, "landlock_create_ruleset"};
         },
         "<3>main: sandbox_init() fails: the kernel has no Landlock: it needs Linux ", 255},
        {"no filters of system calls",
         [](DaemonOptions& options) {
             options.launcher = {TELVORA_WITHOUT_SYSTEM_CALL, "seccomp"};
         },
         "<3>main: sandbox_init() fails: seccomp(2): Function not implemented; the kernel lacks it", 255},
        {"a framework folder that isn't one",
         [&](DaemonOptions& options) { options.frameworkDirectory = barred; },
         "<3>main: can't read the framework folder " + barred.string() + ": Not a directory", 1},
        {"something else in the socket's place",
         [&](DaemonOptions&) { std::filesystem::create_directories(socket()); },
         "<3>main: can't listen: " + socket() + ": is there and is no socket", 1},
    };
    for (const auto& [what, change, line, status] : cases) {
        SCOPED_TRACE(what);
        launchDaemon(change);
        expectLineBeginning(line);
        awaitDaemonsEnd(status);
    }
}

TEST_F(Service, LeavesASocketAloneThatIsInUse) {
    startDaemon();
    DaemonProcess second(
        DaemonOptions::forLaboratory(directory().path(), laboratory().pki(), bags().baseURL()));
    EXPECT_TRUE(second.waitForLine("<3>main: can't listen: " + socket() + ": in use"));
    EXPECT_EQ(second.process().waitForExit(kPatience), 1);
    BlockingSession(socket()).fetchStates();
}

TEST_F(Service, EndsAtOnceWhenToldTwiceAndTellsWhatIsLost) {
    laboratory().setBag("dravik", openBag());
    startDaemon([](DaemonOptions& options) { options.defaults.set("shutdownMilliseconds", 3'600'000); });
    reports().setFault(lab::ReportingFault::hold);
    const auto session = open();
    session->send(4, 1, {{"a", 1}});
    session->beginFlush();
    ASSERT_TRUE(reports().waitForMessages(1, kPatience));
    const size_t from = daemon().logLineCount();
    daemon().process().signal(SIGTERM);
    expectLineBeginning("<7>HTTPSPostBackend(sendMessage): Batching ", from);
    expectLineBeginning("<7>internalSendMessage: ", from);
    daemon().process().signal(SIGTERM);
    // two of them are the session's start and end
    expectLine("<4>main: 3 reports lost of 3 accepted");
    awaitDaemonsEnd();
    reports().releaseHeld();
}

TEST_F(Service, ReadsItsLogLevelAnewAtSIGHUP) {
    startDaemon();
    const auto preferences = directory().path() / "config" / "Preferences" / "com.zandor.telvora.plist";
    std::filesystem::remove(preferences);
    daemon().process().signal(SIGHUP);
    expectLine("<6>main: Logging up to level 6");
    const size_t from = daemon().logLineCount();
    BlockingSession(socket()).fetchStates();
    daemon().process().signal(SIGHUP);
    expectLine("<6>main: Logging up to level 6", from);
    EXPECT_THAT(daemon().logLines(), Each(Not(StartsWith("<7>"))));
}

}  // namespace
}  // namespace telvora::test
