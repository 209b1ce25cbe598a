// SPDX-License-Identifier: Apache-2.0
#include "platform/listening_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "telvora-lab/temporary_directory.h"
#include "tests/support/forked_child.h"

namespace telvora {
namespace {

using test::ChildReport;

constexpr char kName[] = "com.example.service";

bool hasFlags(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

class ListeningSocketTest : public testing::Test {
  protected:
    auto open(const std::string& name = kName) { return openListeningSocket(directory_.path(), name); }
    bool connects() {
        sockaddr_un address{AF_UNIX, {}};
        path_.native().copy(address.sun_path, sizeof address.sun_path - 1);
        const UniqueFd client(socket(AF_UNIX, SOCK_STREAM, 0));
        return connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    // Opens in a child that was handed `count` descriptors, the first of which is `fd`; what went wrong.
    std::string openHandedOver(int fd, const char* count) {
        return test::inForkedChild([&](const ChildReport& report) {
            report.expect(fd == 3 || dup2(fd, 3) == 3, "dup2");
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            setenv("LISTEN_FDS", count, 1);
            const auto opened = open();
            report.expect(getenv("LISTEN_FDS") == nullptr, "environment");
            if (!opened) return report.wrong(opened.error());
            report.expect(opened->fromServiceManager && opened->socket.get() == 3, "socket");
            report.expect(hasFlags(3), "flags");
        });
    }

    lab::TemporaryDirectory directory_;
    const std::filesystem::path path_ = directory_.path() / kName;
};

TEST_F(ListeningSocketTest, IsOpenToAllAndGoesWithItsOwner) {
    {
        auto opened = open();
        ASSERT_TRUE(opened) << opened.error();
        EXPECT_FALSE(opened->fromServiceManager);
        EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0666));
        EXPECT_TRUE(hasFlags(opened->socket.get()));

        const ListeningSocket moved = std::move(*opened);
        EXPECT_TRUE(connects());
        EXPECT_EQ(open().error(), path_.native() + ": in use");
        EXPECT_TRUE(connects());
    }
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ListeningSocketTest, ReplacesOnlyADeadSocket) {
    {
        auto first = open();
        ASSERT_TRUE(first);
        first->socket.reset();  // as when the process dies: the name stays, nobody listens
        EXPECT_FALSE(connects());
        const auto second = open();
        ASSERT_TRUE(second) << second.error();
        // The first owner must not take the second one's name away.
        { const ListeningSocket gone = std::move(*first); }
        EXPECT_TRUE(connects());
    }
    directory_.write(kName, "a file");
    EXPECT_EQ(open().error(), path_.native() + ": is there and is no socket");
    EXPECT_EQ(lab::readFile(path_), "a file");
    const std::string base = directory_.path().native() + "/", tooLong(200, 'x');
    EXPECT_EQ(open(tooLong).error(), base + tooLong + ": too long for the name of a socket");
    EXPECT_EQ(open("absent/name").error(), "can't bind " + base + "absent/name: No such file or directory");
}

TEST_F(ListeningSocketTest, ComesFromTheServiceManagerWhichKeepsTheName) {
    auto managers = open();
    ASSERT_TRUE(managers);
    ASSERT_EQ(fcntl(managers->socket.get(), F_SETFL, 0), 0);
    EXPECT_EQ(openHandedOver(managers->socket.get(), "1"), "");
    EXPECT_TRUE(connects());

    const std::string noSocket = "the service manager handed over no listening Unix stream socket\n";
    const UniqueFd notListening(socket(AF_UNIX, SOCK_STREAM, 0)), internet(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(listen(internet.get(), 1), 0);
    EXPECT_EQ(openHandedOver(notListening.get(), "1"), noSocket);
    EXPECT_EQ(openHandedOver(internet.get(), "1"), noSocket);
    EXPECT_EQ(openHandedOver(notListening.get(), "2"),
              "the service manager handed over 2 descriptors instead of one\n");
}

}  // namespace
}  // namespace telvora
