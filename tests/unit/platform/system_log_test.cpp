// SPDX-License-Identifier: Apache-2.0
#include "platform/system_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/environment_variable.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {
namespace {

// What arrives at a collector of standard error while `write` runs. A packet pipe keeps each write apart.
std::string collected(void (*write)()) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_DIRECT | O_NONBLOCK) != 0) return "no pipe";
    const UniqueFd reader(ends[0]), writer(ends[1]), before(dup(STDERR_FILENO));
    struct stat status {};
    fstat(writer.get(), &status);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    const test::EnvironmentVariable variable("JOURNAL_STREAM", stream.c_str());

    dup2(writer.get(), STDERR_FILENO);
    write();
    dup2(before.get(), STDERR_FILENO);

    std::string packets;
    char packet[4096];
    for (ssize_t size; (size = read(reader.get(), packet, sizeof packet)) > 0;)
        packets.append("[").append(packet, static_cast<size_t>(size)).append("]");
    return packets;
}

TEST(SystemLogTest, ACollectorGetsEachLineInOneWriteWithItsLevel) {
    EXPECT_EQ(collected([] {
                  startLogging("test");
                  TELVORA_LOG(kLogError, "an error %d", 7);
                  TELVORA_LOG(kLogInfo, "two\nlines in %s", "one");
                  TELVORA_LOG(kLogInfo, "with a line feed\n");
                  TELVORA_LOG(kLogDebug, "below the threshold");
                  stopLogging();
                  TELVORA_LOG(kLogError, "after the end");
              }),
              "[<3>an error 7\n][<6>two\\x0alines in one\n][<6>with a line feed\n]");
}

}  // namespace
}  // namespace telvora
