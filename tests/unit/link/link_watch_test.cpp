// SPDX-License-Identifier: Apache-2.0
#include "link/link_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <future>
#include <mutex>

#include "tests/support/fake_system_bus.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {
namespace {

using namespace std::chrono_literals;

constexpr char kNetworkManager[] = "org.freedesktop.NetworkManager", kUPower[] = "org.freedesktop.UPower";
constexpr LinkState kNeither{}, kMetered{true, false}, kBattery{false, true}, kBoth{true, true};

struct LinkWatchTest : testing::Test {
    // Starts a watch in the place of an earlier one.
    std::shared_ptr<LinkWatch> watch(LinkState watched, std::chrono::milliseconds answerTime = 60s) {
        pool.emplace(1);
        states.clear();
        states.emplace_back();
        return LinkWatch::start(pool->makeStrand(), {watched, path, answerTime, 1ms, 2ms},
                                [this](const LinkState& state) {
                                    const std::lock_guard guard(lock);
                                    states.back().set_value(state);
                                    states.emplace_back();
                                });
    }
    // The next state that the listener gets.
    LinkState next() {
        std::unique_lock guard(lock);
        auto state = states.front().get_future();
        guard.unlock();
        if (state.wait_for(60s) != std::future_status::ready) throw std::runtime_error("no state");
        guard.lock();
        states.pop_front();
        return state.get();
    }

    TemporaryDirectory directory;
    const std::string path = directory.path() / "bus";
    std::mutex lock;
    std::deque<std::promise<LinkState>> states;
    std::optional<WorkPool> pool;  // the first to go
};

TEST_F(LinkWatchTest, ReadsTheValuesThatAreWatched) {
    const struct {
        LinkState watched;
        FakeSystemBus::Property metered, battery;
        LinkState expected;
    } cases[] = {{kMetered, {"u", 0}, {}, kNeither},  // unknown
                 {kMetered, {"u", 1}, {}, kMetered},  // yes
                 {kMetered, {"u", 2}, {}, kNeither},  // no
                 {kMetered, {"u", 3}, {}, kMetered},  // guessed yes
                 {kMetered, {"u", 4}, {}, kNeither},  // guessed no
                 {kMetered, {"b", 1}, {}, kNeither},  // another type
                 {kBattery, {"u", 1}, {"b", 0}, kNeither}, {kBoth, {}, {"b", 1}, kBattery},
                 {kBoth, {"u", 1}, {"b", 1}, kBoth}};
    for (const auto& one : cases) {
        SCOPED_TRACE(&one - cases);
        std::filesystem::remove(path);
        FakeSystemBus bus(path);
        bus.metered = one.metered;
        bus.battery = one.battery;
        const auto link = watch(one.watched);
        const int sources = one.watched == kBoth ? 2 : 1;
        bus.serve(sources);
        EXPECT_EQ(next(), one.expected);
        EXPECT_EQ(link->state(), one.expected);
        EXPECT_EQ(bus.rules, 2 * sources);
    }
}

TEST_F(LinkWatchTest, FollowsTheServicesAndTheBus) {
    const LogCapture log;
    watch(kBoth);
    EXPECT_EQ(next(), kNeither) << "there is no bus";
    FakeSystemBus bus(path);
    bus.battery.value = 1;
    bus.serve(2);
    EXPECT_EQ(next(), kBattery);
    bus.signal("org.example.Other");
    bus.battery = {};
    bus.signal(kUPower);
    bus.answer(1);
    EXPECT_EQ(next(), kNeither);
    // A change during a question leads to another one.
    bus.signal(kNetworkManager);
    bus.signal(kNetworkManager);
    bus.answer(1);
    bus.metered.value = 1;
    bus.answer(1);
    EXPECT_EQ(next(), kMetered);
    bus.hangUp();
    EXPECT_EQ(next(), kNeither) << "the bus has gone";
    bus.serve(2);
    EXPECT_EQ(next(), kMetered);
    const auto lines = log.lines();
    EXPECT_EQ(std::ranges::count_if(lines, [](auto& line) { return line.starts_with("<4>LinkWatch: no "); }),
              2)
        << "one for each loss, however often it is tried";
}

TEST_F(LinkWatchTest, DoesNotWaitForASilentBus) {
    FakeSystemBus bus(path);
    bus.metered.value = 1;
    watch(kMetered, 0ms);
    EXPECT_EQ(next(), kNeither);
    bus.serve(1);
    EXPECT_EQ(next(), kMetered) << "the answer counts when it comes";
}

}  // namespace
}  // namespace telvora::test
