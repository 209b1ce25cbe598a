// SPDX-License-Identifier: Apache-2.0
#include "link/link_watch.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

#include "tests/support/fake_system_bus.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {
namespace {

using namespace std::chrono_literals;

constexpr char kNetworkManager[] = "org.freedesktop.NetworkManager", kUPower[] = "org.freedesktop.UPower";
constexpr LinkState kNeither{}, kMetered{true, false}, kBattery{false, true}, kBoth{true, true};

class LinkWatchTest : public testing::Test {
  protected:
    // Starts a watch in the place of an earlier one.
    std::shared_ptr<LinkWatch> watch(LinkState watched, std::chrono::milliseconds answerTime = 60s) {
        pool_.emplace(1);
        states_.clear();
        return LinkWatch::start(pool_->makeStrand(),
                                {.watched = watched,
                                 .busPath = path,
                                 .answerTime = answerTime,
                                 .firstPause = 1ms,
                                 .longestPause = 2ms},
                                [this](const LinkState& state) {
                                    const std::lock_guard lock(mutex_);
                                    states_.push_back(state);
                                    changed_.notify_one();
                                });
    }
    // The next state that the listener gets.
    LinkState next() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, 60s, [this] { return !states_.empty(); }))
            throw std::runtime_error("no state");
        const LinkState state = states_.front();
        states_.pop_front();
        return state;
    }

    TemporaryDirectory directory;
    const std::string path = directory.path() / "bus";

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<LinkState> states_;
    std::optional<WorkPool> pool_;  // the first to go
};

TEST_F(LinkWatchTest, ReadsTheValuesThatAreWatched) {
    const struct {
        const char* what;
        LinkState watched;
        FakeSystemBus::Property metered, battery;
        LinkState expected;
    } cases[] = {{"unknown", kMetered, {'u', 0}, {}, kNeither},
                 {"yes", kMetered, {'u', 1}, {}, kMetered},
                 {"no", kMetered, {'u', 2}, {}, kNeither},
                 {"guessed yes", kMetered, {'u', 3}, {}, kMetered},
                 {"guessed no", kMetered, {'u', 4}, {}, kNeither},
                 {"no such value", kMetered, {'u', 5}, {}, kNeither},
                 {"text", kMetered, {'s', 0, "yes"}, {}, kNeither},
                 {"another type", kMetered, {'b', 1}, {}, kNeither},
                 {"no NetworkManager", kBoth, {}, {'b', 1}, kBattery},
                 {"mains", kBattery, {'u', 1}, {'b', 0}, kNeither},
                 {"battery", kBattery, {'u', 1}, {'b', 1}, kBattery},
                 {"both", kBoth, {'u', 1}, {'b', 1}, kBoth},
                 {"no service", kBoth, {}, {}, kNeither}};
    for (const auto& [what, watched, metered, battery, expected] : cases) {
        SCOPED_TRACE(what);
        std::filesystem::remove(path);
        FakeSystemBus bus(path);
        bus.metered = metered;
        bus.battery = battery;
        const auto link = watch(watched);
        const int sources = watched == kBoth ? 2 : 1;
        bus.serve(sources);
        EXPECT_EQ(next(), expected);
        EXPECT_EQ(link->state(), expected);
        EXPECT_EQ(bus.rules, 2 * sources);
    }
}

TEST_F(LinkWatchTest, FollowsTheServicesAndTheBus) {
    const LogCapture log;
    const auto link = watch(kBoth);
    EXPECT_EQ(next(), kNeither) << "there is no bus";
    FakeSystemBus bus(path);
    bus.battery.number = 1;
    bus.serve(2);
    EXPECT_EQ(next(), kBattery);
    bus.signal("org.example.Other", "PropertiesChanged");
    bus.metered.number = 1;
    bus.signal(kNetworkManager, "PropertiesChanged");
    bus.answer(1);
    EXPECT_EQ(next(), kBoth);
    bus.battery = {};
    bus.signal(kUPower, "NameOwnerChanged");
    bus.answer(1);
    EXPECT_EQ(next(), kMetered);
    // A change during a question leads to another one.
    bus.signal(kNetworkManager, "PropertiesChanged");
    bus.signal(kNetworkManager, "PropertiesChanged");
    bus.answer(1);
    bus.metered.number = 2;
    bus.answer(1);
    EXPECT_EQ(next(), kNeither);

    bus.metered.number = 1;
    bus.signal(kNetworkManager, "PropertiesChanged");
    bus.answer(1);
    EXPECT_EQ(next(), kMetered);
    bus.hangUp();
    EXPECT_EQ(next(), kNeither) << "the bus has gone";
    bus.serve(2);
    EXPECT_EQ(next(), kMetered);
    size_t warnings = 0;
    for (const std::string& line : log.lines())
        warnings += line.starts_with("<4>LinkWatch: no system bus: ") ? 1 : 0;
    EXPECT_EQ(warnings, 2U) << "one for each loss, however often it is tried";
}

TEST_F(LinkWatchTest, DoesNotWaitForASilentBus) {
    FakeSystemBus bus(path);
    bus.metered.number = 1;
    const auto link = watch(kMetered, 0ms);
    EXPECT_EQ(next(), kNeither);
    bus.serve(1);
    EXPECT_EQ(next(), kMetered) << "the answer counts when it comes";
}

}  // namespace
}  // namespace telvora::test
