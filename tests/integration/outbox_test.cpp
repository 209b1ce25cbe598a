// SPDX-License-Identifier: Apache-2.0
//
// The outbox and the kept bags of the real, confined daemon: over a server's absence, the daemon's end and
// its death.
#include <set>

#include "tests/support/daemon_fixture.h"

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

}  // namespace
}  // namespace telvora::test
