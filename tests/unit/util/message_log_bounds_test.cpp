// SPDX-License-Identifier: Apache-2.0
//
// The bounds of the message log: its bytes, one user's part of them, and the cost of a record.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "util/message_log.h"

namespace telvora {
namespace {

using TelvoradUtil::writeToLogFile;

constexpr uint64_t kMaxBytes = 1 << 20;

class MessageLogBoundsTest : public testing::Test {
  protected:
    MessageLogBoundsTest() {
        log_.maxBytes = kMaxBytes;
        log_.clock = [this] { return now_; };
        log_.creationDate = [this](const std::filesystem::path&) {
            ++listings_;
            return std::optional(1.0 * now_.seconds);
        };
    }
    void write(const std::string& message, std::optional<uid_t> user) {
        writeToLogFile(log_, {message}, user);
    }
    std::string content() const { return test::readFile(newestLogFile(log_).value()); }

    test::TemporaryDirectory directory_;
    MessageLog log_{directory_.path() / "logs"};
    TimeValue now_{1447660800, 0};
    int listings_ = 0;
    test::LogCapture lines_;
};

TEST_F(MessageLogBoundsTest, AFloodOfOneUserLeavesTheRecordsOfOthers) {
    const std::string record(10'000, 'x');
    write("of another user", 1001);
    for (int i = 0; i < 1000; ++i)
        write(record, 1000);
    write("also of another user", 1001);
    EXPECT_LT(content().size(), kMaxBytes / 8 + 1000);
    EXPECT_NE(content().find(") of another user\n"), std::string::npos);
    EXPECT_NE(content().find(") also of another user\n"), std::string::npos);
    const std::string of1000 = " of user 1000, of which the log takes 131072 bytes an hour";
    EXPECT_EQ(lines_.count("<4>writeToLogFile: Dropped 1 records with 10029 bytes" + of1000), 1u);
    now_.seconds += 60;  // some bytes are free again
    write("now", 1000);
    EXPECT_EQ(lines_.count("<4>writeToLogFile: Dropped 986 records with 9888594 bytes" + of1000), 1u);
    EXPECT_TRUE(content().ends_with(") now\n"));
}

TEST_F(MessageLogBoundsTest, TheOldestRecordsMakeRoomForNewOnes) {
    for (uid_t user = 0; user < 100; ++user) {
        for (int i = 0; i < 10; ++i)
            write("of " + std::to_string(user) + "\n " + std::string(5000, 'x'), user);
        EXPECT_LE(content().size(), kMaxBytes);
    }
    EXPECT_GT(content().size(), kMaxBytes / 3);
    EXPECT_TRUE(content().starts_with("(2015-11-16 08:00:00 +0000) of "));
    EXPECT_EQ(content().find(") of 1\n"), std::string::npos);
    EXPECT_NE(content().find(") of 99\n"), std::string::npos);
}

TEST_F(MessageLogBoundsTest, ADirectoryIsListedOnlyAfterAChange) {
    const auto settle = [this] {  // a change at the time of the listing could be missed
        const timespec past[] = {{1, 0}, {1, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, log_.directory.c_str(), past, 0), 0);
    };
    write("first", 1);
    settle();
    write("second", 1);
    listings_ = 0;
    for (int i = 0; i < 1000; ++i)
        write("another", 1);
    EXPECT_EQ(listings_, 0);
    directory_.write("logs/telvorad_1_messageLog.diag", "appears");
    write("last", 1);
    EXPECT_GT(listings_, 0);
    EXPECT_FALSE(exists(log_.directory / "telvorad_1_messageLog.diag") &&
                 newestLogFile(log_) != log_.directory / "telvorad_1_messageLog.diag");
    settle();
    std::filesystem::remove(newestLogFile(log_).value());
    write("after a removal", 1);
    EXPECT_TRUE(content().ends_with(") after a removal\n"));
}

}  // namespace
}  // namespace telvora
