// SPDX-License-Identifier: Apache-2.0
//
// Base64, compression, log lines and the ranks of locks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "tests/support/inflated.h"
#include "tests/support/log_capture.h"
#include "util/base64.h"
#include "util/compression.h"
#include "util/library_pages.h"
#include "util/mutex.h"
#include "util/nearest_word.h"

namespace telvora::test {
namespace {

TEST(Base64Test, EncodesStreamsAndDecodesWholeGroupsAmongForeignCharacters) {
    EXPECT_EQ(base64Encode(""), "");
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
    std::string bytes;
    while (bytes.size() < (3 << 20) + 2)
        bytes.push_back(static_cast<char>(bytes.size() * 7));
    EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
    EXPECT_EQ(base64Decode("\n"), "");
    EXPECT_EQ(base64Decode(" Zm\r\n9v-Y*mE\t= "), "fooba");
    for (const char* malformed :
         {"Z", "Zg", "Zg=", "Zm8", "Zg==Zg==", "=Zg=", "Z===", "====", "Zm9v=", "Zm9v===="})
        EXPECT_EQ(base64Decode(malformed), std::nullopt) << malformed;
}

TEST(NearestWord, SuggestsAWordThatAFewLettersMake) {
    constexpr std::string_view kWords[] = {"status", "send", "session", "logLevel"};
    const std::pair<std::string, std::string> cases[] = {{"stauts", "status"},
                                                         {"sned", "send"},
                                                         {"sesion", "session"},
                                                         {"LOGLEVELS", "logLevel"},
                                                         {"", ""},
                                                         {"fetch", ""},
                                                         {"snd", "send"},
                                                         {std::string(65, 's'), ""}};
    for (const auto& [word, expected] : cases)
        EXPECT_EQ(nearestWord(word, kWords).value_or(""), expected) << word;
}

TEST(CompressionTest, BothFormsInflateBackToTheInputAndSayWhatTheyDid) {
    const LogCapture log;
    const std::string line = "compressDataWithZlibOrGzip: ";
    std::string incompressible;
    for (uint32_t state = 1; incompressible.size() < 300000; state = state * 1664525 + 1013904223)
        incompressible.push_back(static_cast<char>(state >> 24));
    for (const std::string& input : {std::string("\0", 1), std::string(1 << 20, 'a'), incompressible}) {
        EXPECT_EQ(inflated(*TelvoradUtil::compressDataWithZlibOrGzip(false, input), kZlibStream), input);
        const std::string gzip = TelvoradUtil::gzipDeflate(input).value();
        EXPECT_EQ(inflated(gzip), input);
        EXPECT_EQ(TelvoradUtil::gzipInflate(gzip, input.size()), input);
        EXPECT_EQ(TelvoradUtil::gzipInflate(gzip, input.size() - 1), std::nullopt);
        EXPECT_EQ(TelvoradUtil::gzipInflate(gzip.substr(0, gzip.size() - 1), input.size()), std::nullopt);
        EXPECT_EQ(TelvoradUtil::gzipInflate(gzip + "x", input.size()), std::nullopt);
        EXPECT_EQ(log.lines().back(), "<7>" + line + "Compressed file from " + std::to_string(input.size()) +
                                          " to " + std::to_string(gzip.size()));
    }
    EXPECT_EQ(TelvoradUtil::gzipDeflate(""), std::nullopt);
    EXPECT_EQ(log.lines().back(), "<3>" + line + "Cannot compress empty NSData");
}

TEST(LogTest, NothingIsEvaluatedAboveTheThreshold) {
    const LogCapture log;
    setLogThreshold(kLogWarning);
    int evaluated = 0;
    TELVORA_LOG(kLogInfo, "%d", ++evaluated);
    TELVORA_LOG(kLogWarning, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"<4>1"});
}

TEST(LogTest, TextFromOutsideCannotForgeALineWhichIsWholeAtAnyLength) {
    const LogCapture log;
    TELVORA_LOG(kLogInfo, "%s", "a\n<3>forged\r\x1b[2J\x7f \xc3\xa9\n");
    TELVORA_LOG(kLogInfo, "%s", std::string(2000, '\t').c_str());
    std::string tabs;
    for (int i = 0; i < 2000; ++i)
        tabs += "\\x09";
    std::vector<std::string> expected{"<6>a\\x0a<3>forged\\x0d\\x1b[2J\\x7f \xc3\xa9\n", "<6>" + tabs};
    for (const size_t length : {0, 511, 512, 513, 100000}) {
        TELVORA_LOG(kLogInfo, "%s", std::string(length, 'x').c_str());
        expected.push_back("<6>" + std::string(length, 'x'));
    }
    EXPECT_EQ(log.lines(), expected);
}

#ifdef TELVORA_SANITIZED

TEST(MutexDeathTest, LocksAreTakenInTheOrderOfTheirRanks) {
    const auto takeBoth = [](LockRank held, LockRank taken, bool tries) {
        Mutex first(held), second(taken);
        { const MutexLock released(second); }  // does not count
        const MutexLock outer(first);
        if (tries) {
            if (second.try_lock()) second.unlock();
        } else {
            const MutexLock inner(second);
        }
    };
    for (const bool tries : {false, true}) {
        takeBoth(LockRank::agent, LockRank::session, tries);
        takeBoth(LockRank::leaf, LockRank::userLog, tries);
        EXPECT_DEATH(takeBoth(LockRank::session, LockRank::agent, tries),
                     "takes agent \\(.*util_test.*\\) while it holds session \\(");
        EXPECT_DEATH(takeBoth(LockRank::agent, LockRank::agent, tries),
                     "takes agent .* while it holds agent");
        EXPECT_DEATH(takeBoth(LockRank::leaf, LockRank::leaf, tries), "takes leaf .* while it holds leaf");
    }
    RecursiveMutex again(LockRank::agent);
    Mutex inner(LockRank::session);
    const RecursiveMutexLock lock(again);
    const MutexLock innerLock(inner);
    [&again] { const RecursiveMutexLock relock(again); }();
}

#endif

TEST(MutexTest, ABusyThreadDoesNotPassOneThatWaits) {
    RecursiveMutex mutex;
    mutex.lock();
    std::atomic<pid_t> waiting = 0;
    std::atomic<bool> served = false;
    std::thread other([&] {
        waiting = gettid();
        const RecursiveMutexLock lock(mutex);
        served = true;
    });
    const auto state = [&] {
        std::string line;
        std::getline(std::ifstream("/proc/self/task/" + std::to_string(waiting) + "/stat"), line);
        return line.substr(line.find_last_of(')') + 1, 2);
    };
    while (waiting == 0 || state() != " S")
        std::this_thread::yield();
    [&mutex] { const RecursiveMutexLock again(mutex); }();  // the owner does not queue
    EXPECT_FALSE(served);
    mutex.unlock();
    mutex.lock();
    EXPECT_TRUE(served);
    mutex.unlock();
    other.join();
}

TEST(LibraryPagesTest, UnmapsWhatNobodyWroteTo) {
    const auto residentPagesOfFiles = [] {
        long total = 0, resident = 0, ofFiles = 0;
        std::ifstream("/proc/self/statm") >> total >> resident >> ofFiles;
        return ofFiles;
    };
    static int written = 1;  // to a page of the program
    ++written;
    const long before = residentPagesOfFiles();
    unmapLoadedPages();
    EXPECT_LT(residentPagesOfFiles(), before * 3 / 4);
    EXPECT_EQ(written, 2);
}

}  // namespace
}  // namespace telvora::test
