// SPDX-License-Identifier: Apache-2.0
//
// The peer of a connection, and the admission of uploads.
#include <gmock/gmock.h>
#include <unistd.h>

#include <vector>

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

    const auto process = peerOfProcess(getpid());
    ASSERT_TRUE(process);
    EXPECT_EQ(std::tie(process->uid, process->gid, process->groups),
              std::tie(peer->uid, peer->gid, peer->groups));
    EXPECT_FALSE(peerOfProcess(-1));

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

// Asks for admission; the answer comes into `ticket`.
struct Request {
    Request(UploadAdmission& admission, uid_t user, uint64_t bytes) {
        admission.admit(user, bytes, [this](TicketPtr given) {
            answered = true;
            ticket = std::move(given);
        });
    }
    bool answered = false;
    TicketPtr ticket;
};

TEST(UploadAdmission, GivesEachUserHalfOfThePlaces) {
    UploadAdmission admission({.uploads = 6, .bytes = 1000});
    std::vector<TicketPtr> tickets;
    for (const uid_t user : {1U, 2U}) {
        for (int i = 0; i < 3; ++i) {
            tickets.push_back(Request(admission, user, 1).ticket);
            EXPECT_NE(tickets.back(), nullptr);
        }
        EXPECT_EQ(Request(admission, user, 1).ticket, nullptr);
    }
    EXPECT_EQ(Request(admission, 3, 1).ticket, nullptr) << "all places are taken";
    tickets.pop_back();
    EXPECT_NE(Request(admission, 3, 1).ticket, nullptr);
}

TEST(UploadAdmission, MakesAUserWaitForMemoryAndNobodyElse) {
    UploadAdmission admission({.uploads = 20, .bytes = 1000});
    Request first(admission, 1, 400);
    Request second(admission, 1, 400);
    EXPECT_FALSE(second.answered) << "the user's half is full";
    Request third(admission, 2, 500);
    EXPECT_NE(third.ticket, nullptr);
    first.ticket->shrink(100);
    EXPECT_NE(second.ticket, nullptr);
    // An upload above a share runs alone in it; one above the whole limit runs alone.
    third.ticket.reset();
    second.ticket.reset();
    EXPECT_NE(Request(admission, 2, 600).ticket, nullptr);
    first.ticket.reset();
    EXPECT_NE(Request(admission, 2, 5000).ticket, nullptr);
}

TEST(UploadAdmission, LetsNoLaterUploadKeepALargeOneWaiting) {
    UploadAdmission admission({.uploads = 20, .bytes = 1000});
    Request mine(admission, 1, 300), others(admission, 2, 500);
    // Two users wait, the first one for its own share.
    Request large(admission, 1, 400), small(admission, 1, 10), next(admission, 3, 400), last(admission, 4, 1);
    EXPECT_FALSE(large.answered || small.answered || next.answered || last.answered);
    mine.ticket.reset();
    EXPECT_TRUE(large.answered && !small.answered && !next.answered && !last.answered);
    others.ticket.reset();
    EXPECT_TRUE(small.answered && next.answered && last.answered);
}

TEST(UploadAdmission, TurnsThoseAwayWhoWaitWhenItCloses) {
    UploadAdmission admission({.uploads = 20, .bytes = 1000});
    const Request first(admission, 1, 500);
    const Request second(admission, 1, 1);
    admission.close();
    EXPECT_TRUE(second.answered);
    EXPECT_EQ(second.ticket, nullptr);
    EXPECT_EQ(Request(admission, 2, 1).ticket, nullptr);
}

}  // namespace
}  // namespace telvora
