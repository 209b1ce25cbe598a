// SPDX-License-Identifier: Apache-2.0
#include "platform/peer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "util/unique_fd.h"

namespace telvora {
namespace {

TEST(Peer, IsWhoMadeTheSocketPair) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const UniqueFd ours(ends[0]), theirs(ends[1]);
    const auto peer = readPeer(ours.get());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->pid, getpid());
    EXPECT_EQ(peer->uid, geteuid());
    EXPECT_EQ(peer->gid, getegid());
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    ASSERT_GE(getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    EXPECT_THAT(peer->groups, testing::UnorderedElementsAreArray(groups));
    EXPECT_EQ(peer->description(), "pid " + std::to_string(getpid()) + ", uid " + std::to_string(geteuid()));
}

TEST(Peer, NeedsAConnectedUnixSocket) {
    EXPECT_FALSE(readPeer(-1));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
    EXPECT_FALSE(readPeer(readEnd.get()));
    EXPECT_FALSE(readPeer(UniqueFd(socket(AF_UNIX, SOCK_STREAM, 0)).get()));
    EXPECT_FALSE(readPeer(UniqueFd(socket(AF_INET, SOCK_STREAM, 0)).get()));
}

}  // namespace
}  // namespace telvora
