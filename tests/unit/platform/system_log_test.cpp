// SPDX-License-Identifier: Apache-2.0
//
// A log that is not read: the daemon goes on, and says later how many lines are missing.
#include "platform/system_log.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "platform/log_writer.h"
#include "tests/support/forked_child.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora::test {
namespace {

constexpr int kLines = 20'000;

// Reads until `end` stands in the text, or until the other end is closed.
std::string readUntil(int fd, const std::string& end) {
    std::string text;
    char part[4096];
    while (text.find(end) == std::string::npos) {
        const ssize_t count = read(fd, part, sizeof part);
        if (count <= 0) break;
        text.append(part, static_cast<size_t>(count));
    }
    return text;
}

TEST(SystemLog, ALogThatIsNotReadStopsNobody) {
    for (const bool isSocket : {false, true}) {
        EXPECT_EQ(inForkedChild([isSocket](const ChildReport& report) {
                      int ends[2];
                      const int made = isSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends);
                      report.expect(made == 0 && dup2(ends[1], STDERR_FILENO) >= 0, "the standard error");
                      alarm(20);  // ends a child that waits for a reader
                      unsetenv("JOURNAL_STREAM");
                      startLogging("test");
                      allowLogThread();
                      std::vector<std::thread> threads;
                      for (int thread = 0; thread < 2; ++thread) {
                          threads.emplace_back([] {
                              for (int i = 0; i < kLines / 2; ++i)
                                  TELVORA_LOG(kLogInfo, "line %d of them, with some more text", i);
                          });
                      }
                      for (std::thread& thread : threads)
                          thread.join();
                      // A reader makes the buffered lines come without a further one.
                      const std::string text = readUntil(ends[0], " lines were dropped\n");
                      const size_t said = text.find("<4>LogWriter: ");
                      report.expect(said != std::string::npos, "the number of dropped lines");
                      if (said == std::string::npos) return;
                      const auto kept =
                          std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(said), '\n');
                      report.expect(kept + std::stol(text.substr(said + 14)) == kLines,
                                    "each line is kept or counted");
                      TELVORA_LOG(kLogInfo, "the last");
                      report.expect(readUntil(ends[0], "<6>the last\n").ends_with("<6>the last\n"), "order");
                      stopLogging();
                  }),
                  "")
            << isSocket;
    }
}

TEST(SystemLog, AFullSocketOfTheLogStopsNobodyAndItsNextReaderIsFound) {
    UniqueFd reader;
    const auto connected = [&reader] {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
        reader.reset(ends[0]);
        return LogWriter::Target{.fd = UniqueFd(ends[1]), .isSocket = true, .isDatagram = true};
    };
    LogWriter writer(
        connected(), [](int, std::string_view line) { return std::string(line); }, connected);
    const std::string line(1000, 'x');
    for (int i = 0; i < 2000; ++i)
        writer.write(kLogInfo, line);
    writer.allowThread();
    writer.write(kLogInfo, line);
    std::string text;
    for (char part[2048]; !text.ends_with(" lines were dropped");)
        text.assign(part, static_cast<size_t>(read(reader.get(), part, sizeof part)));
    reader.reset();
    writer.write(kLogInfo, "after a restart of the log");
    EXPECT_EQ(readUntil(reader.get(), "restart of the log"), "after a restart of the log");
}

}  // namespace
}  // namespace telvora::test
