// SPDX-License-Identifier: Apache-2.0
#include "daemon/keep_alive_transaction.h"

#include <gtest/gtest.h>

namespace telvora {
namespace {

using namespace std::chrono_literals;

// Virtual time: fires when the test says so.
struct ManualTimer : IdleTimer {
    explicit ManualTimer(std::function<void()>& where) : pending(where) {}
    void start(std::chrono::milliseconds delay, std::function<void()> handler) override {
        EXPECT_EQ(delay, 30s);
        pending = std::move(handler);
    }
    void cancel() override { pending = nullptr; }
    std::function<void()>& pending;
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
    bool waits() {
        runLoop_.restart();
        runLoop_.poll();
        return timer_ != nullptr;
    }
    void fire() {
        ASSERT_TRUE(timer_);
        std::exchange(timer_, nullptr)();
        waits();
    }

    asio::io_context runLoop_{1};
    std::function<void()> timer_;
    bool inFlight_ = false;
    int idleCalls_ = 0;
};

TEST_F(KeepAliveTransactionTest, IdlesOnceNobodyHasNeededTheProcessForLong) {
    const auto transaction = make(true);
    EXPECT_TRUE(waits());  // nobody has come yet
    for (int i = 0; i < 2; ++i)
        transaction->begin();
    EXPECT_FALSE(waits());
    transaction->end();
    EXPECT_FALSE(waits());
    transaction->end();
    EXPECT_TRUE(waits());
    for (const bool inFlight : {true, false}) {
        inFlight_ = inFlight;
        fire();
        EXPECT_EQ(idleCalls_, inFlight ? 0 : 1);
    }
    EXPECT_FALSE(timer_);

    const auto notOnDemand = make(false);
    notOnDemand->begin();
    notOnDemand->end();
    EXPECT_FALSE(waits());
}

TEST_F(KeepAliveTransactionTest, ABeginThatRacesTheTimerWins) {
    const auto transaction = make(true);
    EXPECT_TRUE(waits());
    transaction->begin();  // the run loop has yet to hear of it
    fire();
    EXPECT_EQ(idleCalls_, 0);
    EXPECT_FALSE(timer_);
}

TEST_F(KeepAliveTransactionTest, MayGoBeforeItsTimerAndItsPosts) {
    auto transaction = make(true);
    EXPECT_TRUE(waits());
    transaction->begin();
    transaction->end();
    const auto handler = timer_;
    transaction.reset();
    handler();
    waits();
    EXPECT_EQ(idleCalls_, 0);
}

}  // namespace
}  // namespace telvora
