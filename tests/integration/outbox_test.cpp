// SPDX-License-Identifier: Apache-2.0
//
// The outbox and the kept bags of the real, confined daemon: over a server's absence, the daemon's end and
// its death, and over a metered link.
#include <set>

#include "tests/support/daemon_fixture.h"
#include "tests/support/fake_system_bus.h"

namespace telvora::test {
namespace {

class Outbox : public DaemonFixture {
  protected:
    void start() {
        startDaemon([](DaemonOptions& options) {
            options.defaults = Dictionary{{"outboxBytes", 1 << 20}, {"keepBags", true}};
        });
    }
    // Waits until the outbox holds so many reports.
    void awaitHeld(int64_t reports) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (std::chrono::steady_clock::now() < deadline) {
            const Dictionary now = status();
            const Dictionary* account = now.dictionary("totals")->dictionary("outbox");
            if (account != nullptr && account->integer("held") == reports) return;
        }
        FAIL() << "the outbox does not hold " << reports << " reports";
    }
    void send(int number) {
        const Session session = open();
        session->send(4, 2, {{"number", number}}, 1);
    }
    std::multiset<int64_t> arrived() {
        std::multiset<int64_t> numbers;
        for (const Dictionary& event : reports().events()) {
            if (const auto number = event.integer("number")) numbers.insert(*number);
        }
        return numbers;
    }
};

TEST_F(Outbox, DeliversWhatItKeptAcrossEndsAndDeaths) {
    start();
    reports().refuse();
    send(1);
    send(2);
    awaitHeld(6);  // with the starts and ends of the sessions
    stopDaemon();
    const size_t bagRequests = bags().requests().size();
    start();
    send(3);  // with the bag that is kept
    EXPECT_EQ(bags().requests().size(), bagRequests);
    awaitHeld(9);
    daemon().signal(SIGKILL);
    EXPECT_EQ(daemon().waitForExit(), 128 + SIGKILL);
    ASSERT_TRUE(reports().accept());
    const size_t before = reports().eventCount();
    start();
    EXPECT_TRUE(waitForEvents(before + 9));
    awaitHeld(0);
    EXPECT_EQ(arrived(), (std::multiset<int64_t>{1, 2, 3}));
}

TEST_F(Outbox, HoldsReportsWhileTheLinkIsMetered) {
    if (runToEnd({wordsOf("/usr/bin/unshare --mount /bin/true"), {}}).status != 0)
        GTEST_SKIP() << "a bus in the place of the system's needs a mount";
    const std::filesystem::path place = directory().path() / "bus";
    std::filesystem::create_directory(place);
    FakeSystemBus bus(place / "system_bus_socket");
    bus.metered.value = 1;
    const auto startOnMeteredLink = [&] {
        startDaemon([&](DaemonOptions& options) {
            options.defaults = {{"outboxBytes", 1 << 20}, {"holdOnMetered", true}, {"holdOnBattery", true}};
            options.launcher = {
                "/usr/bin/unshare",
                "--mount",
                "/bin/sh",
                "-ec",
                "mount -t tmpfs none /run; mkdir /run/dbus; mount --bind \"$0\" /run/dbus; exec \"$@\"",
                place};
        });
        bus.serve(2);
        expectLine("<6>main: Reports are held: the link is metered");
    };
    startOnMeteredLink();
    Session session = open();
    session->send(4, 2, {{"number", 1}});
    EXPECT_EQ(session->flush().error, std::nullopt);
    session->send(4, 2, {{"number", 2}}, 1);
    EXPECT_TRUE(waitForEvents(1));
    session->send(4, 2, {{"number", 3}});
    const std::string tool = std::string(TELVORACTL_PATH) + " --socket " + daemon().socketPath();
    expectRun(tool + " status", 0, "reports are held: the link is metered");
    expectRun(tool + " status --openmetrics", 0, R"(telvora_reports_held_back{reason="metered"} 1)");
    expectRun(tool + " doctor --client-type 8", 27, "reports are held: the link is metered");
    daemon().stop();
    EXPECT_THAT(daemon().logLines(), testing::Each(testing::Not(testing::HasSubstr("reports lost of"))));
    awaitDaemonsEnd();
    EXPECT_EQ(arrived(), std::multiset<int64_t>{2});

    startOnMeteredLink();
    awaitHeld(4);  // with the start and the end of the session
    bus.metered.value = 2;
    bus.signal("org.freedesktop.NetworkManager");
    bus.answer(1);
    expectLine("<6>main: Reports are held no longer");
    awaitHeld(0);
    EXPECT_EQ(arrived(), (std::multiset<int64_t>{1, 2, 3}));
    stopDaemon();

    startDaemon([](DaemonOptions& options) { options.defaults = {{"holdOnMetered", true}}; });
    expectLine("<4>main: No report is held for the link: there is no outbox (outboxBytes)");
    session = open();
    session->send(4, 2, {{"number", 4}});
    stopDaemon();
    EXPECT_EQ(arrived(), (std::multiset<int64_t>{1, 2, 3, 4}));
}

}  // namespace
}  // namespace telvora::test
