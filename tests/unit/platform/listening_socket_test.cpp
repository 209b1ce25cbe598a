// SPDX-License-Identifier: Apache-2.0
#include "platform/listening_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>

#include "tests/support/forked_child.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using test::ChildReport;
using test::inForkedChild;

constexpr char kName[] = "com.example.service";

class ListeningSocketTest : public testing::Test {
  protected:
    std::string errorOf(const std::string& name = kName) {
        const auto opened = openListeningSocket(directory_.path(), name);
        return opened ? "opened" : opened.error();
    }
    bool connects() {
        sockaddr_un address{AF_UNIX, {}};
        path_.native().copy(address.sun_path, sizeof address.sun_path - 1);
        const UniqueFd client(socket(AF_UNIX, SOCK_STREAM, 0));
        return connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }

    test::TemporaryDirectory directory_;
    const std::filesystem::path path_ = directory_.path() / kName;
};

TEST_F(ListeningSocketTest, IsOpenToAllAndGoesWithItsOwner) {
    {
        auto opened = openListeningSocket(directory_.path(), kName);
        ASSERT_TRUE(opened) << opened.error();
        EXPECT_FALSE(opened->fromServiceManager);
        struct stat status {};
        ASSERT_EQ(stat(path_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0666u);
        EXPECT_NE(fcntl(opened->socket.get(), F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(opened->socket.get(), F_GETFD) & FD_CLOEXEC, 0);

        const ListeningSocket moved = std::move(*opened);
        EXPECT_TRUE(connects());
        EXPECT_EQ(errorOf(), path_.native() + ": in use");
        EXPECT_TRUE(connects());
    }
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ListeningSocketTest, ReplacesOnlyADeadSocket) {
    {
        auto first = openListeningSocket(directory_.path(), kName);
        ASSERT_TRUE(first);
        first->socket.reset();  // as when the process dies: the name stays, nobody listens
        EXPECT_FALSE(connects());
        const auto second = openListeningSocket(directory_.path(), kName);
        ASSERT_TRUE(second) << second.error();
        // The first owner must not take the second one's name away.
        { const ListeningSocket gone = std::move(*first); }
        EXPECT_TRUE(connects());
    }
    directory_.write(kName, "a file");
    EXPECT_EQ(errorOf(), path_.native() + ": is there and is no socket");
    EXPECT_EQ(test::readFile(path_), "a file");
}

TEST_F(ListeningSocketTest, ReportsWhatIsWrongWithTheName) {
    const std::string tooLong(200, 'x');
    EXPECT_EQ(errorOf(tooLong),
              (directory_.path() / tooLong).native() + ": too long for the name of a socket");
    EXPECT_EQ(errorOf("absent/name"),
              "can't bind " + (directory_.path() / "absent/name").native() + ": No such file or directory");
}

// Opens in a child that was handed `count` descriptors, the first of which is `fd`.
std::string openHandedOver(int fd, const char* count, const std::function<void(const ChildReport&)>& check) {
    return inForkedChild([&](const ChildReport& report) {
        report.expect(fd < 0 || fd == 3 || dup2(fd, 3) == 3, "dup2");
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        setenv("LISTEN_FDS", count, 1);
        check(report);
        report.expect(getenv("LISTEN_FDS") == nullptr, "environment");
    });
}

TEST_F(ListeningSocketTest, ComesFromTheServiceManagerWhichKeepsTheName) {
    auto managers = openListeningSocket(directory_.path(), kName);
    ASSERT_TRUE(managers);
    ASSERT_EQ(fcntl(managers->socket.get(), F_SETFL, 0), 0);
    EXPECT_EQ(openHandedOver(managers->socket.get(), "1",
                             [&](const ChildReport& report) {
                                 const auto opened = openListeningSocket("/absent", kName);
                                 if (!opened) return report.wrong(opened.error());
                                 report.expect(opened->fromServiceManager && opened->socket.get() == 3,
                                               "socket");
                                 report.expect((fcntl(3, F_GETFL) & O_NONBLOCK) != 0, "non-blocking");
                                 report.expect((fcntl(3, F_GETFD) & FD_CLOEXEC) != 0, "close-on-exec");
                             }),
              "");
    EXPECT_TRUE(connects());
}

TEST_F(ListeningSocketTest, TakesNothingElseFromTheServiceManager) {
    const auto expectError = [&](const std::string& expected) {
        return [this, expected](const ChildReport& report) {
            const std::string error = errorOf();
            report.expect(error == expected, error);
        };
    };
    const std::string noSocket = "the service manager handed over no listening Unix stream socket";
    const UniqueFd notListening(socket(AF_UNIX, SOCK_STREAM, 0));
    const UniqueFd internet(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(listen(internet.get(), 1), 0);
    EXPECT_EQ(openHandedOver(notListening.get(), "1", expectError(noSocket)), "");
    EXPECT_EQ(openHandedOver(internet.get(), "1", expectError(noSocket)), "");
    const UniqueFd second(dup2(notListening.get(), 4));
    EXPECT_EQ(openHandedOver(notListening.get(), "2",
                             expectError("the service manager handed over 2 descriptors instead of one")),
              "");
}

}  // namespace
}  // namespace telvora
