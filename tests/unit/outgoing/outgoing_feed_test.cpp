// SPDX-License-Identifier: Apache-2.0
#include "outgoing/outgoing_feed.h"

#include <gtest/gtest.h>

namespace telvora {
namespace {

Dictionary entryOf(size_t bytes) {
    return {{outgoing::kBody, Data{std::string(bytes, 'x')}}};
}

TEST(OutgoingFeed, KeepsTheNewestEntriesForWatchersOnly) {
    OutgoingFeed feed;
    int wakeUps = 0;
    const auto wakeUp = [&wakeUps] { ++wakeUps; };
    feed.add(entryOf(1));  // nobody watches
    uint64_t slow = feed.join(), fast = feed.join();
    EXPECT_TRUE(feed.take(fast, wakeUp).entries.empty());
    constexpr size_t kEntries = 100, kBytes = OutgoingFeed::kMaxBytes / 10;
    for (size_t i = 0; i < kEntries; ++i) {
        feed.add(entryOf(kBytes));
        EXPECT_EQ(feed.take(fast, wakeUp).entries.size(), 1U);
    }
    EXPECT_EQ(wakeUps, 1);
    const auto late = feed.take(slow, wakeUp);
    EXPECT_TRUE(late.entries.size() == 9 || late.entries.size() == 10) << late.entries.size();
    EXPECT_EQ(late.entries.size() + late.lost, kEntries);

    feed.add(entryOf(2 * OutgoingFeed::kMaxBytes));  // alone over the bound
    EXPECT_EQ(feed.take(slow, wakeUp).entries.size(), 1U);
    const auto shared = feed.take(fast, wakeUp).entries;
    feed.leave();
    EXPECT_TRUE(feed.watched());
    feed.leave();
    EXPECT_FALSE(feed.watched());
    EXPECT_EQ(shared.at(0).use_count(), 1) << "the feed keeps nothing without watchers";
}

}  // namespace
}  // namespace telvora
