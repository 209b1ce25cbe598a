// SPDX-License-Identifier: Apache-2.0
//
// The peer of a connection, and the admission of uploads.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "access/peer.h"
#include "access/upload_admission.h"
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
    for (const int family : {AF_UNIX, AF_INET})
        EXPECT_FALSE(readPeer(UniqueFd(socket(family, SOCK_STREAM, 0)).get()));
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
        {"", ""}};
    for (const auto& [path, unit] : cases)
        EXPECT_EQ(unitOfControlGroup(path), unit) << path;
}

using TicketPtr = std::unique_ptr<UploadAdmission::Ticket>;

TEST(UploadAdmission, GivesEachUserHalfOfThePlaces) {
    UploadAdmission admission({.uploads = 6, .bytes = 1000});
    std::vector<TicketPtr> tickets;
    for (const uid_t user : {1U, 2U}) {
        for (int i = 0; i < 3; ++i) {
            tickets.push_back(admission.admit(user, 1));
            EXPECT_NE(tickets.back(), nullptr);
        }
        EXPECT_EQ(admission.admit(user, 1), nullptr);
    }
    EXPECT_EQ(admission.admit(3, 1), nullptr) << "all places are taken";
    tickets.pop_back();
    EXPECT_NE(admission.admit(3, 1), nullptr);
}

TEST(UploadAdmission, MakesAUserWaitForMemoryAndNobodyElse) {
    UploadAdmission admission({.uploads = 20, .bytes = 1000});
    TicketPtr first = admission.admit(1, 400);
    std::atomic<bool> shrunk = false;
    auto other = std::async(std::launch::async, [&] {
        TicketPtr third = admission.admit(2, 500);
        shrunk = true;
        first->shrink(100);
        return third;
    });
    EXPECT_NE(admission.admit(1, 400), nullptr);
    EXPECT_TRUE(shrunk) << "the user's half is full until then";
    TicketPtr third = other.get();
    EXPECT_NE(third, nullptr);
    // An upload above a share runs alone in it; one above the whole limit runs alone.
    third.reset();
    EXPECT_NE(admission.admit(2, 600), nullptr);
    first.reset();
    EXPECT_NE(admission.admit(2, 5000), nullptr);
}

TEST(UploadAdmission, TurnsThoseAwayWhoWaitWhenItCloses) {
    UploadAdmission admission({.uploads = 20, .bytes = 1000});
    const TicketPtr first = admission.admit(1, 500);
    auto second = std::async(std::launch::async, [&] { return admission.admit(1, 1); });
    admission.close();
    EXPECT_EQ(second.get(), nullptr);
    EXPECT_EQ(admission.admit(2, 1), nullptr);
}

}  // namespace
}  // namespace telvora
