// SPDX-License-Identifier: Apache-2.0
#include "access/upload_admission.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace telvora {
namespace {

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
