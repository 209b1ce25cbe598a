// SPDX-License-Identifier: Apache-2.0
#include "platform/keep_alive_transaction.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

namespace telvora {
namespace {

using namespace std::chrono_literals;

// Virtual time: fires when the test says so.
struct ManualTimer : IdleTimer {
    struct Pending {
        std::chrono::milliseconds delay;
        std::function<void()> handler;
    };
    explicit ManualTimer(std::optional<Pending>& where) : pending(where) {}
    void start(std::chrono::milliseconds delay, std::function<void()> handler) override {
        pending = Pending{delay, std::move(handler)};
    }
    void cancel() override { pending.reset(); }
    std::optional<Pending>& pending;
};

class KeepAliveTransactionTest : public testing::Test {
  protected:
    std::unique_ptr<KeepAliveTransaction> make(bool launchedOnDemand) {
        return std::make_unique<KeepAliveTransaction>(
            runLoop_, KeepAliveOptions{.launchedOnDemand = launchedOnDemand,
                                       .inFlight = [this] { return inFlight_; },
                                       .onIdle = [this] { ++idleCalls_; },
                                       .timer = std::make_unique<ManualTimer>(timer_)});
    }
    void runLoop() {
        runLoop_.restart();
        runLoop_.poll();
    }
    void fire() {
        ASSERT_TRUE(timer_);
        EXPECT_EQ(timer_->delay, 30s);
        const auto handler = std::move(timer_->handler);
        timer_.reset();
        handler();
        runLoop();
    }

    asio::io_context runLoop_{1};
    std::optional<ManualTimer::Pending> timer_;
    bool inFlight_ = false;
    int idleCalls_ = 0;
};

TEST_F(KeepAliveTransactionTest, IdlesOnceNobodyHasNeededTheProcessForLong) {
    const auto transaction = make(true);
    runLoop();
    EXPECT_TRUE(timer_);  // nobody has come yet
    transaction->begin();
    transaction->begin();
    runLoop();
    EXPECT_FALSE(timer_);
    transaction->end();
    runLoop();
    EXPECT_FALSE(timer_);
    transaction->end();
    runLoop();
    inFlight_ = true;
    fire();
    EXPECT_EQ(idleCalls_, 0);
    inFlight_ = false;
    fire();
    EXPECT_EQ(idleCalls_, 1);
    EXPECT_FALSE(timer_);
}

TEST_F(KeepAliveTransactionTest, ABeginThatRacesTheTimerWins) {
    const auto transaction = make(true);
    runLoop();
    transaction->begin();  // the run loop has yet to hear of it
    fire();
    EXPECT_EQ(idleCalls_, 0);
    EXPECT_FALSE(timer_);
}

TEST_F(KeepAliveTransactionTest, NeverIdlesAProcessThatWasNotLaunchedOnDemand) {
    const auto transaction = make(false);
    transaction->begin();
    transaction->end();
    runLoop();
    EXPECT_FALSE(timer_);
}

TEST_F(KeepAliveTransactionTest, MayGoBeforeItsTimerAndItsPosts) {
    auto transaction = make(true);
    runLoop();
    transaction->begin();
    transaction->end();
    auto handler = timer_->handler;
    transaction.reset();
    handler();
    runLoop();
    EXPECT_EQ(idleCalls_, 0);
}

TEST_F(KeepAliveTransactionTest, IsOpenedAndClosedFromAnyThread) {
    const auto transaction = make(true);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int j = 0; j < 100; ++j) {
                    transaction->begin();
                    transaction->end();
                }
            });
        }
    }
    runLoop();
    fire();
    EXPECT_EQ(idleCalls_, 1);
}

TEST(KeepAliveTransaction, RunsOnRealTimeByDefault) {
    asio::io_context runLoop(1);
    bool idle = false;
    const KeepAliveTransaction transaction(runLoop, {.launchedOnDemand = true,
                                                     .inFlight = [] { return false; },
                                                     .onIdle = [&] { idle = true; },
                                                     .idleTime = 1ms});
    runLoop.run();  // ends when nothing is left to wait for
    EXPECT_TRUE(idle);
}

}  // namespace
}  // namespace telvora
