// SPDX-License-Identifier: Apache-2.0
#include "client/call_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

namespace telvora::test {
namespace {

struct Item {
    size_t thread;
    size_t number;
    Item* next = nullptr;
};

// Each thread pushes single items and, each third time, a pair.
TEST(CallQueueTest, KeepsTheOrderOfEachThreadAndThePairs) {
    constexpr size_t kThreads = 4, kItems = 30'000;
    CallQueue<Item> queue;
    std::atomic<size_t> wakeups = 0;
    std::vector<std::thread> threads;
    for (size_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&queue, &wakeups, thread] {
            const auto item = [thread](size_t number) {
                return std::unique_ptr<Item>(new Item{thread, number});
            };
            for (size_t i = 0; i < kItems; i += 3) {
                wakeups += queue.push(item(i));
                wakeups += queue.push(item(i + 1), item(i + 2));
            }
        });
    }
    std::array<size_t, kThreads> expected{};
    for (size_t taken = 0; taken < kThreads * kItems;) {
        while (const auto item = queue.pop()) {
            ASSERT_EQ(item->number, expected.at(item->thread)++);
            ++taken;
            if (item->number % 3 != 1) continue;
            const auto second = queue.pop();
            ASSERT_TRUE(second && second->thread == item->thread);
            ASSERT_EQ(second->number, expected.at(item->thread)++);
            ++taken;
        }
        std::this_thread::yield();
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GE(wakeups, 1u);
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_TRUE(queue.push(std::unique_ptr<Item>(new Item{0, 0})));
    EXPECT_FALSE(
        queue.push(std::unique_ptr<Item>(new Item{0, 1})));  // the consumer knows; the queue frees both
}

}  // namespace
}  // namespace telvora::test
