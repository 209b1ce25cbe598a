// SPDX-License-Identifier: Apache-2.0
#include "outbox/outbox_store.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/outbox/outbox_messages.h"
#include "tests/unit/outbox/volatile_disk.h"

namespace telvora::test {
namespace {

constexpr OutboxLimits kLimits{1 << 20, std::chrono::hours(24), 100};
const OutboxMoment kMoment{1447660800, 100, "boot"};

using Bodies = std::vector<std::string>;

// The bodies in the store, in order, which it empties. Each is as it was stored.
Bodies drain(OutboxStore& store) {
    Bodies bodies;
    for (;;) {
        const auto heads = store.heads().value();
        if (heads.empty()) return bodies;
        const StoredMessage message = store.read(heads.front().id).value();
        EXPECT_FALSE(message.isDamaged);
        EXPECT_EQ(message.request.headers, messageOf(message.request.body).request.headers);
        bodies.push_back(message.request.body);
        EXPECT_TRUE(store.remove(message.id));
    }
}

class OutboxStoreOnDisk : public testing::Test {
  protected:
    SqliteResult<OutboxStore> open() {
        return OutboxStore::open(path(), kLimits, kMoment, VolatileDisk::kVfs);
    }
    std::filesystem::path path() { return directory_.path() / "outbox.db"; }

    // Changes the store until a change fails. Returns the states that a crash at this moment may leave.
    std::vector<Bodies> change() {
        auto store = open();
        if (!store) return {{}};
        Bodies now;
        for (const Bodies& added :
             {Bodies{"a", "b", "c"}, Bodies(), Bodies{"d"}, Bodies(), Bodies{"e", "f"}}) {
            Bodies next = now;
            bool done = false;
            if (added.empty()) {
                next.erase(next.begin());
                const auto heads = store->heads();
                done = heads && store->remove(heads->front().id);
            } else {
                std::vector<OutboxMessage> messages;
                std::vector<const OutboxMessage*> pointers;
                for (const std::string& body : added)
                    next.push_back(
                        messages.emplace_back(messageOf(body + std::string(3000, '.'))).request.body);
                for (const OutboxMessage& message : messages)
                    pointers.push_back(&message);
                done = store->add(pointers, kMoment).has_value();
            }
            if (!done) return {now, next};
            now = next;
        }
        completed_ = true;
        return {now};
    }

    VolatileDisk disk_;
    bool completed_ = false;

  private:
    TemporaryDirectory directory_;
};

TEST_F(OutboxStoreOnDisk, KeepsWhatItHasStoredOverADeathAtEachChange) {
    enum class After { kill, powerLoss, anotherPowerLoss };
    size_t deaths = 0;
    for (const After after : {After::kill, After::powerLoss, After::anotherPowerLoss}) {
        completed_ = false;
        for (size_t n = 0; !completed_; ++n, ++deaths) {
            SCOPED_TRACE(testing::Message() << "change " << n << ", then " << static_cast<int>(after));
            OutboxStore::removeFiles(path());
            disk_.forget();
            disk_.failFrom(n);
            const std::vector<Bodies> possible = change();
            disk_.mend();
            if (after != After::kill)
                disk_.losePower(static_cast<unsigned>(n) + static_cast<unsigned>(after));
            auto store = open();
            ASSERT_TRUE(store) << store.error().text;
            const Bodies found = drain(*store);
            EXPECT_NE(std::find(possible.begin(), possible.end(), found), possible.end())
                << testing::PrintToString(found.size());
        }
    }
    EXPECT_GT(deaths, 100U);
}

TEST_F(OutboxStoreOnDisk, SurvivesAFullDiskAndDamage) {
    const LogCapture log;
    const OutboxMessage a = messageOf("a"), b = messageOf("b");
    {
        auto store = open();
        ASSERT_TRUE(store->add({&a}, kMoment));
        disk_.failFrom(0, SQLITE_FULL);
        EXPECT_FALSE(store->add({&b}, kMoment));
        disk_.mend();
        EXPECT_TRUE(store->add({&b}, kMoment));
    }
    // A message whose bytes have changed, in a file that is still a database.
    std::string& content = disk_.content(path());
    const size_t at = content.find("https://one.example/events");
    ASSERT_NE(at, content.npos);
    content[at + 8] ^= 1;
    {
        auto store = open();
        EXPECT_NE(store->read(1)->isDamaged, store->read(2)->isDamaged);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(OutboxStore, MovesADamagedFileAside) {
    const LogCapture log;
    const TemporaryDirectory directory;
    const std::filesystem::path path = directory.write("outbox.db", std::string(5000, 'x'));
    auto store = OutboxStore::open(path, kLimits, kMoment);
    ASSERT_TRUE(store) << store.error().text;
    EXPECT_EQ(store->totals()->messages, 0U);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines().at(0).substr(0, 3), "<4>");
    EXPECT_EQ(readFile(path.string() + ".damaged").size(), 5000U);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
}

TEST(OutboxStore, RemovesTheOldestBeyondItsLimits) {
    const TemporaryDirectory directory;
    auto store =
        OutboxStore::open(directory.path() / "outbox.db", {20'000, std::chrono::hours(1), 3}, kMoment);
    const auto add = [&](const std::string& body, uid_t user) {
        const OutboxMessage message = messageOf(body, "https://one.example", user);
        return store->add({&message}, kMoment).value();
    };
    for (const char* body : {"a", "b", "c"})
        EXPECT_EQ(add(body, 1), 0U);
    EXPECT_EQ(add("d", 1), 1U);  // a
    const std::string large(6000, 'x');
    EXPECT_EQ(add(large + "1", 2), 0U);
    EXPECT_EQ(add(large + "2", 2), 0U);
    EXPECT_EQ(add(large + "3", 2), 1U);  // the first of user 2, who has the most bytes
    EXPECT_EQ(add("e", 3), 0U);
    EXPECT_EQ(drain(*store), (Bodies{"b", "c", "d", large + "2", large + "3", "e"}));
}

TEST(OutboxStore, AgesByTheClockThatCounts) {
    constexpr double kHour = 3600;
    struct {
        const char* what;
        OutboxMoment stored, opened, now;
        bool expired;
    } const cases[] = {
        {"young", {1000, 10, "a"}, {1000, 10, "a"}, {1000 + kHour, 10 + kHour - 1, "a"}, false},
        {"old", {1000, 10, "a"}, {1000, 10, "a"}, {1000, 10 + kHour + 1, "a"}, true},
        {"the time of day was set", {1000, 10, "a"}, {1000, 10, "a"}, {1.7e9, 20, "a"}, false},
        {"young after a boot",
         {1000, 10, "a"},
         {1000 + kHour / 2, 0, "b"},
         {1000 + kHour - 1, 5, "b"},
         false},
        {"old after a boot", {1000, 10, "a"}, {1000 + 2 * kHour, 0, "b"}, {1000 + 2 * kHour, 5, "b"}, true},
        {"from the future", {1.7e9, 10, "a"}, {1000, 0, "b"}, {1000 + kHour - 1, 5, "b"}, false},
        {"once from the future", {1.7e9, 10, "a"}, {1000, 0, "b"}, {1000 + kHour + 1, 5, "b"}, true},
    };
    for (const auto& [what, stored, opened, now, expired] : cases) {
        SCOPED_TRACE(what);
        const TemporaryDirectory directory;
        const std::filesystem::path path = directory.path() / "outbox.db";
        const OutboxLimits limits{10'000, std::chrono::hours(1), 3};
        const OutboxMessage message = messageOf("a");
        ASSERT_TRUE(OutboxStore::open(path, limits, stored)->add({&message}, stored));
        auto store = OutboxStore::open(path, limits, opened);
        EXPECT_EQ(store->removeExpired(now).value(), expired ? 1U : 0U);
    }
}

}  // namespace
}  // namespace telvora::test
