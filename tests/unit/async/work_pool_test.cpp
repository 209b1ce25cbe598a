// SPDX-License-Identifier: Apache-2.0
#include "async/work_pool.h"

#include <gtest/gtest.h>

#include <asio/post.hpp>
#include <atomic>
#include <future>
#include <latch>
#include <stdexcept>
#include <thread>

#include "async/user_turns.h"
#include "util/log.h"

namespace telvora {
namespace {

using namespace std::chrono_literals;

// Posts `work` to its own strand; the result becomes ready at its end.
template <typename Work>
std::future<void> postTo(WorkPool& pool, Work work) {
    auto done = std::make_shared<std::promise<void>>();
    asio::post(pool.makeStrand(), [done, work = std::move(work)]() mutable {
        work();
        done->set_value();
    });
    return done->get_future();
}

// Work items that block, each on its own strand, until end(). Waits until `running` of them do.
class Blockers {
  public:
    Blockers(WorkPool& pool, size_t count, size_t running, BlockingShare* share = nullptr)
        : entered_(static_cast<std::ptrdiff_t>(running)) {
        for (size_t i = 0; i < count; ++i) {
            all_.push_back(postTo(pool, [this, share, counts = i < running] {
                const BlockingShare::Scope charged(share);
                const BlockingSection outer;
                const BlockingSection nested;
                if (counts) entered_.count_down();
                released_.wait();
            }));
        }
        entered_.wait();
    }
    void end() {
        release_.set_value();
        for (auto& one : all_)
            EXPECT_EQ(one.wait_for(60s), std::future_status::ready);
    }

  private:
    std::promise<void> release_;
    const std::shared_future<void> released_ = release_.get_future().share();
    std::latch entered_;
    std::vector<std::future<void>> all_;
};

TEST(WorkPool, BlockedWorkLeavesARunnerToOthersUpToACapAndSurplusThreadsRetire) {
    constexpr size_t kCap = WorkPool::kMaxSurplusThreads + 1;
    for (const size_t blocked : {size_t{8}, kCap + 10}) {
        WorkPool pool(1, 1ms);
        EXPECT_EQ(pool.threadCount(), 1u);
        Blockers blockers(pool, blocked, std::min(blocked, kCap));
        EXPECT_EQ(pool.threadCount(), std::min(blocked + 1, kCap));
        if (blocked < kCap) {
            EXPECT_EQ(postTo(pool, [] {}).wait_for(60s), std::future_status::ready);
        }
        blockers.end();
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (pool.threadCount() > 1 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_EQ(pool.threadCount(), 1u);
        EXPECT_EQ(postTo(pool, [] {}).wait_for(60s), std::future_status::ready);
    }
}

TEST(WorkPool, AUserWhoseWorkBlocksAShareOfTheThreadsMustWait) {
    WorkPool pool(1);
    BlockingShare share;
    constexpr size_t kMost = BlockingShare::kThreads - 1;
    Blockers most(pool, kMost, kMost, &share);
    EXPECT_TRUE(share.mayStart([] {}));
    Blockers last(pool, 1, 1, &share);
    std::promise<void> resumed;
    EXPECT_FALSE(share.mayStart([&] { resumed.set_value(); }));
    EXPECT_TRUE(BlockingShare().mayStart([] {})) << "of another user";
    most.end();
    last.end();
    resumed.get_future().wait();
    EXPECT_TRUE(share.mayStart([] {}));
}

TEST(WorkPool, BusyUsersTakeTurnsBehindTheInputOfOthers) {
    WorkPool pool(1);
    const auto busy = std::make_shared<UserTurns>(), other = std::make_shared<UserTurns>();
    UserTurns slow;
    slow.addTime(UserTurns::kBusyMilliseconds - 1);
    EXPECT_FALSE(busy->isBusy() || slow.isBusy());
    busy->add(UserTurns::kBusyBytes + 1);
    slow.addTime(2);
    EXPECT_TRUE(busy->isBusy() && slow.isBusy());
    std::string order;
    std::promise<void> done;
    postTo(pool, [&] {
        for (const char turn : {'1', '2', '3'})
            UserTurns::queue(busy, pool.makeStrand(), [&order, turn] { order += turn; });
        UserTurns::queue(other, pool.makeStrand(), [&order] { order += 'o'; });
        asio::post(pool.makeStrand(), [&order] { order += 'i'; });
        UserTurns::queue(busy, pool.makeStrand(), [&done] { done.set_value(); });
    });
    done.get_future().wait();
    EXPECT_EQ(order, "i1o23");
}

TEST(WorkPool, StopWaitsForRunningWorkAndDropsTheRest) {
    WorkPool pool(1);
    asio::io_context& context = pool.makeStrand().context();
    std::latch running(1);
    std::promise<void> release;
    std::atomic<bool> finished = false;
    auto dropped = std::make_shared<int>(0);
    asio::post(context, [&] {
        running.count_down();
        release.get_future().wait();
        finished = true;
    });
    asio::post(context, [&context, dropped] {
        ++*dropped;
        asio::post(context, [dropped] { ++*dropped; });
    });
    running.wait();
    context.stop();  // the first step of stop(), before the running item returns
    release.set_value();
    pool.stop();
    pool.stop();
    EXPECT_TRUE(finished);
    EXPECT_EQ(*dropped, 0);
    EXPECT_EQ(pool.threadCount(), 0u);
}

TEST(WorkPoolDeathTest, AnExceptionThatLeavesAWorkItemIsLoggedAndEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            setLogSink([](int level, std::string_view line) {
                fprintf(stderr, "<%d>%.*s\n", level, static_cast<int>(line.size()), line.data());
            });
            WorkPool pool(1);
            postTo(pool, [] { throw std::runtime_error("spilt"); }).wait();
        },
        "<3>WorkPool: a work item threw: spilt");
}

}  // namespace
}  // namespace telvora
