// SPDX-License-Identifier: Apache-2.0
//
// File systems that fail the daemon: reports go on.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

// A file system of a few pages, for a scope.
class TinyFileSystem {
  public:
    explicit TinyFileSystem(const std::filesystem::path& path) : path_(path) {
        std::filesystem::create_directories(path);
        mounted_ = mount("none", path.c_str(), "tmpfs", 0, "size=16k,mode=0755") == 0;
    }
    ~TinyFileSystem() {
        if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    // Fills the file system.
    void fill() const { std::ofstream(path_ / "filler") << std::string(size_t{1} << 20, 'x'); }

  private:
    std::filesystem::path path_;
    bool mounted_ = false;
};

class StorageFaults : public DaemonFixture {
  protected:
    void start() {
        laboratory().setBag("dravik", openBag());
        startDaemon();
        session_ = open();
    }
    // Sends a realtime report, which is posted and logged at once.
    void expectRealtimeReport() {
        const size_t before = reports().eventCount();
        EXPECT_TRUE(session_->send(9, 1, {{"k", "v"}}, 1)) << "a logged answer";
        EXPECT_TRUE(waitForEvents(before + 1));
    }

    std::unique_ptr<BlockingSession> session_;
};

TEST_F(StorageFaults, AFullDiskUnderTheMessageLogCostsNoReport) {
    const TinyFileSystem logs(directory().path() / "logs");
    if (!logs.mounted()) GTEST_SKIP() << "mounting a file system takes privileges that this process lacks";
    start();
    expectRealtimeReport();
    expectLineBeginning("<6>writeToLogFile: Saved log message to ");

    logs.fill();
    const size_t from = daemon().logLineCount();
    // The file's last page has room for a few more records. The record that fails to be written removes its
    // file.
    for (int i = 0; i < 20; ++i)
        expectRealtimeReport();
    expectLineBeginning("<6>writeToLogFile: Deleted expired telvorad log file ", from);
}

TEST_F(StorageFaults, AStateDirectoryThatCantBeWrittenCostsNoReport) {
    const auto state = directory().path() / "state";
    create_directories(state);
    chmod(state.c_str(), 0500);  // also holds for root: the daemon has no capabilities
    start();
    expectRealtimeReport();
    expectRealtimeReport();
    const auto messages = reports().messages();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages[0].clientId, messages[1].clientId) << "identifiers stay while the process lives";
    chmod(state.c_str(), 0700);
}

}  // namespace
}  // namespace telvora::test
