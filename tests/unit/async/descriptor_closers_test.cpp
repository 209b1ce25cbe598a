// SPDX-License-Identifier: Apache-2.0
#include "async/descriptor_closers.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "tests/support/hostile_descriptors.h"

namespace telvora {
namespace {

constexpr uid_t kUser = 5, kOther = 6;

TEST(DescriptorClosers, AUserWhoseDescriptorBlocksDelaysNobodyElse) {
    std::promise<void> release, othersClosed;
    std::promise<std::vector<int>> allClosed;
    std::vector<int> closed;
    DescriptorClosers closers([&](int fd) {
        if (fd == 100) release.get_future().wait();
        if (fd == 200) return othersClosed.set_value();
        closed.push_back(fd);
        if (closed.size() == 2) allClosed.set_value(closed);
    });
    const auto users = closers.of(kUser)->ofReceived();
    std::vector<UniqueFd> descriptors;
    descriptors.emplace_back(100, users);
    descriptors.emplace_back(101, users);
    descriptors.clear();
    UniqueFd(200, closers.of(kOther));
    othersClosed.get_future().wait();

    size_t more = 0;
    for (; users->hasRoom(); ++more)
        users->addOne();
    EXPECT_FALSE(closers.of(kUser)->hasRoom()) << "blocked descriptors count on, for all connections";
    EXPECT_TRUE(closers.of(kOther)->hasRoom());
    for (; more > 0; --more)
        users->releaseOne();
    release.set_value();
    EXPECT_EQ(allClosed.get_future().get(), (std::vector{100, 101}));
}

TEST(DescriptorClosers, ClosesWhatAClosedConnectionHoldsUnread) {
    const UniqueFd listener = test::silentListener();
    int ends[2], pipeEnds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC), 0);
    const UniqueFd peer(ends[1]), reader(pipeEnds[0]);
    DescriptorClosers closers;
    {
        const UniqueFd writer(pipeEnds[1], closers.of(kUser)->ofReceived());
        const UniqueFd connection(ends[0], closers.of(kUser));
        for (int i = 0; i < 3; ++i) {
            UniqueFd lingering = test::lingeringSocket(listener);
            ASSERT_TRUE(test::sendWith(peer.get(), "x", {lingering.get()}));
        }
    }
    char byte = 0;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0) << "the line has reached its end";
}

}  // namespace
}  // namespace telvora
