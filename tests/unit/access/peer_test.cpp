// SPDX-License-Identifier: Apache-2.0
#include "access/peer.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/bus_peer.h"

namespace telvora {
namespace {

TEST(Peer, IsWhoMadeTheSocketPair) {
    const test::SocketPair sockets;
    const auto peer = readPeer(sockets.ours.get());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->gid, getegid());
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    ASSERT_GE(getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    EXPECT_THAT(peer->groups, testing::UnorderedElementsAreArray(groups));
    EXPECT_EQ(peer->description(), "pid " + std::to_string(getpid()) + ", uid " + std::to_string(geteuid()));

    EXPECT_FALSE(readPeer(-1));
    EXPECT_FALSE(readPeer(UniqueFd(socket(AF_UNIX, SOCK_STREAM, 0)).get()));
    EXPECT_FALSE(readPeer(UniqueFd(socket(AF_INET, SOCK_STREAM, 0)).get()));
}

TEST(Peer, BelongsToTheFirstUnitOfItsControlGroup) {
    const std::pair<const char*, const char*> cases[] = {
        {"/system.slice/app.service", "app.service"},
        {"/system.slice/system-app.slice/app@1.service/sub/group", "app@1.service"},
        {"/user.slice/user-1000.slice/user@1000.service/app.slice/app.service", "user@1000.service"},
        {"/user.slice/user-1000.slice/session-1.scope", "session-1.scope"},
        {"/_cgroup.service", "cgroup.service"},
        {"/system.slice", ""},
        {"/lxc/app.service", ""},
        {"/", ""},
        {"", ""},
    };
    for (const auto& [path, unit] : cases)
        EXPECT_EQ(unitOfControlGroup(path), unit) << path;
}

}  // namespace
}  // namespace telvora
