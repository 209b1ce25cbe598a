// SPDX-License-Identifier: Apache-2.0
#include "access/upload_admission.h"

#include <gtest/gtest.h>

#include <vector>

namespace telvora {
namespace {

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
