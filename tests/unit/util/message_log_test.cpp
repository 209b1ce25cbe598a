// SPDX-License-Identifier: Apache-2.0
#include "util/message_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <map>
#include <set>

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "util/unique_fd.h"

namespace telvora {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

using TelvoradUtil::writeToLogFile;

constexpr int32_t kNow = 1447660800;
constexpr const char* kNewName = "telvorad_1447660800_messageLog.diag";
const std::string kDeleted = "<6>writeToLogFile: Deleted expired telvorad log file ";
const std::string kDate = "(2015-11-16 08:00:00 +0000) ";

std::string nameOf(int64_t created) {
    return "telvorad_" + std::to_string(created) + "_messageLog.diag";
}

class MessageLogTest : public testing::Test {
  protected:
    MessageLogTest() : log_(directory_.path() / "a/b") {
        log_.clock = [this] { return now_; };
        // The creation time of a file: the time in its name, unless a test sets it.
        log_.creationDate = [this](const std::filesystem::path& path) -> std::optional<double> {
            ++listings_;
            const auto known = created_.find(path.filename());
            if (known != created_.end()) return known->second;
            return std::stod(path.filename().string().substr(9));
        };
    }

    std::filesystem::path addFile(const std::string& name) {
        return directory_.write("a/b/" + name, "old\n");
    }

    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(log_.directory))
            names.insert(entry.path().filename());
        return names;
    }
    std::string pathOf(const std::string& name) const { return log_.directory / name; }
    std::string content(const std::string& name) const { return test::readFile(pathOf(name)); }

    test::TemporaryDirectory directory_;
    MessageLog log_;
    TimeValue now_{kNow, 999999};
    std::map<std::string, std::optional<double>> created_;
    int listings_ = 0;  // of the directory, if it has a file
    test::LogCapture lines_;
};

TEST_F(MessageLogTest, TheFirstRecordMakesTheDirectoryAndTheFile) {
    writeToLogFile(log_, {"[httpPost -> flushMessages] \xc3\xa9"});
    writeToLogFile(log_, {""});
    EXPECT_THAT(names(), ElementsAre(kNewName));
    EXPECT_EQ(content(kNewName), kDate + "[httpPost -> flushMessages] \xc3\xa9\n" + kDate + "\n");
    const std::string line = "<6>writeToLogFile: ", path = pathOf(kNewName);
    EXPECT_THAT(lines_.lines(),
                ElementsAre(line + "Creating telvorad log directory at " + log_.directory.string(),
                            line + "Created new telvorad log file " + path + " (2015-11-16 08:00:00 +0000)",
                            line + "Saved log message to " + path, line + "Saved log message to " + path));
}

TEST_F(MessageLogTest, OnlyTheNewestFileYoungerThanADayIsKept) {
    now_.microseconds = 0;
    // The ages of the files that are there, in seconds, and of the file that gets the record: 0 is a new one.
    const std::pair<std::vector<int64_t>, int64_t> cases[] = {
        {{86400}, 86400}, {{86401}, 0}, {{50, 20}, 20}, {{20, 86401, 30}, 20}, {{-100, 20}, -100}};
    for (const auto& [ages, kept] : cases) {
        std::filesystem::remove_all(log_.directory);
        for (const int64_t age : ages)
            addFile(nameOf(kNow - age));
        lines_.clear();
        writeToLogFile(log_, {"m"});
        EXPECT_THAT(names(), ElementsAre(nameOf(kNow - kept)));
        EXPECT_EQ(content(nameOf(kNow - kept)), (kept ? "old\n" : "") + kDate + "m\n");
        for (const int64_t age : ages) {
            const std::string deleted = kDeleted + pathOf(nameOf(kNow - age)) + " (20";
            EXPECT_THAT(lines_.lines(), Contains(StartsWith(deleted)).Times(age == kept ? 0 : 1));
        }
    }
}

TEST_F(MessageLogTest, OfFilesOfTheSameAgeOrOfUnknownAgeOneIsKept) {
    for (const int64_t created : {1, 2, 3})
        addFile(nameOf(created));
    created_ = {{nameOf(1), kNow - 5}, {nameOf(2), kNow - 5}, {nameOf(3), std::nullopt}};
    writeToLogFile(log_, {"m"});
    EXPECT_THAT(names(), AnyOf(ElementsAre(nameOf(1)), ElementsAre(nameOf(2))));
    EXPECT_TRUE(lines_.contains(kDeleted + pathOf(nameOf(3)) + " ((null))"));
}

TEST_F(MessageLogTest, OtherFilesAreLeftAlone) {
    std::set<std::string> all{"a_b", "telvorad_messageLog.diag", "x_1_messageLog.diag",
                              "telvorad_1_2_messageLog.diag", "telvorad_1_messageLog.diag.old"};
    for (const std::string& name : all)
        addFile(name);
    writeToLogFile(log_, {"m"});
    all.insert(kNewName);
    EXPECT_EQ(names(), all);
}

TEST_F(MessageLogTest, ADirectoryThatIsNoneCostsOnlyTheRecord) {
    directory_.write("a", "a file");
    writeToLogFile(log_, {"m"});
    EXPECT_THAT(lines_.lines(),
                ElementsAre("<3>writeToLogFile: Error reading from log directory: Not a directory",
                            "<3>writeToLogFile: Failed to create new telvorad log file " + pathOf(kNewName)));
}

TEST_F(MessageLogTest, WhatOnlyHasTheNameOfALogFileTakesNoRecord) {
    const auto target = directory_.write("target", "precious\n");
    std::filesystem::create_directories(pathOf(nameOf(kNow + 5)));
    std::filesystem::create_symlink(target, pathOf(kNewName));
    ASSERT_EQ(mkfifo(pathOf(nameOf(kNow + 7)).c_str(), 0600), 0);
    const UniqueFd reader(open(pathOf(nameOf(kNow + 7)).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(newestLogFile(log_), std::nullopt);
    writeToLogFile(log_, {"m"});
    EXPECT_EQ(test::readFile(target), "precious\n");
    EXPECT_FALSE(std::filesystem::is_symlink(pathOf(kNewName)));
    EXPECT_THAT(names(), ElementsAre(kNewName, nameOf(kNow + 5)));
    EXPECT_EQ(content(kNewName), kDate + "m\n");
    EXPECT_EQ(newestLogFile(log_), pathOf(kNewName));
}

TEST_F(MessageLogTest, AMessageIsOneRecordWhateverItsLines) {
    writeToLogFile(log_, {"{\n  a\n}\n(2015-11-16 08:00:00 +0000) [forged] x\n("});
    EXPECT_EQ(content(kNewName), kDate + "{\n  a\n}\n (2015-11-16 08:00:00 +0000) [forged] x\n (\n");
}

TEST_F(MessageLogTest, TwoProcessesWritingAtOnceLeaveOneFileOfWholeRecords) {
    constexpr size_t kRecords = 300;
    const std::string record(3000, 'r');
    const auto writeAll = [&](int32_t clock) {
        now_.seconds = clock;  // each makes a file of its own if it finds none
        for (size_t i = 0; i < kRecords; ++i)
            writeToLogFile(log_, {record});
    };
    const pid_t other = fork();
    if (other == 0) {
        writeAll(kNow + 1);
        _exit(0);
    }
    writeAll(kNow);
    int status = -1;
    ASSERT_TRUE(waitpid(other, &status, 0) == other && status == 0);
    now_.seconds = kNow + 2;
    writeToLogFile(log_, {"last"});
    ASSERT_EQ(names().size(), 1u);
    const std::string written = content(*names().begin());
    const size_t length = kDate.size() + record.size() + 1;
    size_t at = 0;
    for (; at + length < written.size(); at += length)
        ASSERT_TRUE(written.substr(at, length).ends_with("+0000) " + record + "\n")) << at;
    EXPECT_EQ(written.substr(at), "(2015-11-16 08:00:02 +0000) last\n");
    EXPECT_GE(at / length, kRecords);  // all but those of a file that the first records' race has cost
}

TEST_F(MessageLogTest, WithoutABirthTimeTheFilesNameTellsItsAge) {
    const MessageLog real(log_.directory);
    const auto path = addFile(nameOf(12345));
    struct statx status {};
    ASSERT_EQ(statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status), 0);
    const bool recorded = (status.stx_mask & STATX_BTIME) != 0;
    const double birth = static_cast<double>(status.stx_btime.tv_sec);
    EXPECT_EQ(std::floor(real.creationDate(path).value()), recorded ? birth : 12345);
    // A file that is not there has no birth time either.
    EXPECT_EQ(real.creationDate(pathOf(nameOf(777))), 777);
    EXPECT_EQ(real.creationDate(pathOf("telvorad_x7_messageLog.diag")), std::nullopt);
    EXPECT_EQ(real.creationDate(pathOf("telvorad_99999999999_messageLog.diag")), std::nullopt);
}

// --- The bounds: the bytes, one user's part of them, and the cost of a record ---

constexpr uint64_t kMaxBytes = 1 << 20;

struct MessageLogBoundsTest : MessageLogTest {
    MessageLogBoundsTest() { log_.maxBytes = kMaxBytes; }
    void write(const std::string& message, uid_t user) { writeToLogFile(log_, {message}, user); }
    std::string content() const { return test::readFile(newestLogFile(log_).value()); }
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
        EXPECT_LE(std::filesystem::file_size(newestLogFile(log_).value()), kMaxBytes);
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
    addFile(nameOf(1));
    write("last", 1);
    EXPECT_GT(listings_, 0);
    EXPECT_THAT(names(), ElementsAre(kNewName));
    settle();
    std::filesystem::remove(newestLogFile(log_).value());
    write("after a removal", 1);
    EXPECT_TRUE(content().ends_with(") after a removal\n"));
}

}  // namespace
}  // namespace telvora
