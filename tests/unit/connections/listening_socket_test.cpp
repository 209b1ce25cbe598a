// SPDX-License-Identifier: Apache-2.0
#include "connections/listening_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "connections/listener.h"
#include "tests/support/forked_child.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/unix_socket.h"

namespace telvora {
namespace {

using test::ChildReport;

constexpr char kName[] = "com.example.service";
constexpr char kOther[] = "com.example.other";

bool hasFlags(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

class ListeningSocketTest : public testing::Test {
  protected:
    auto open(const std::string& name = kName) { return makeListeningSocket(directory_.path() / name); }
    bool connects() { return static_cast<bool>(test::connectedSocket(path_)); }
    // Takes over in a child that was handed `fds` under the names (separated by colons). The failure, if any.
    static std::string takeHandedOver(const std::vector<int>& fds, const char* names) {
        return test::inForkedChild([&](const ChildReport& report) {
            for (size_t i = 0; i < fds.size(); ++i) {
                const int place = 3 + static_cast<int>(i);
                report.expect(fds[i] == place || dup2(fds[i], place) == place, "dup2");
            }
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            setenv("LISTEN_FDS", std::to_string(fds.size()).c_str(), 1);
            setenv("LISTEN_FDNAMES", names, 1);
            const auto taken = takeHandedOverSockets(kOther);
            report.expect(getenv("LISTEN_FDS") == nullptr, "environment");
            if (!taken) return report.wrong(taken.error());
            report.expect(taken->other.has_value() == (fds.size() == 2), "other");
            if (!taken->main) return report.wrong("main");
            const int main = taken->main->socket.get();
            report.expect(main == (std::string_view(names).starts_with(kOther) ? 4 : 3), "which");
            report.expect(taken->main->fromServiceManager && hasFlags(main), "flags");
        });
    }

    test::TemporaryDirectory directory_;
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
        first->socket.reset();  // as when the process dies: the name stays, without a listener
        EXPECT_FALSE(connects());
        const auto second = open();
        ASSERT_TRUE(second) << second.error();
        // The first owner must not take the second one's name away.
        { const ListeningSocket gone = std::move(*first); }
        EXPECT_TRUE(connects());
    }
    directory_.write(kName, "a file");
    EXPECT_EQ(open().error(), path_.native() + ": is there and is no socket");
    EXPECT_EQ(test::readFile(path_), "a file");
    const std::string base = directory_.path().native() + "/", tooLong(200, 'x');
    EXPECT_EQ(open(tooLong).error(), base + tooLong + ": too long for the name of a socket");
    EXPECT_EQ(open("absent/name").error(), "can't bind " + base + "absent/name: No such file or directory");
}

TEST_F(ListeningSocketTest, ComesFromTheServiceManagerWhichKeepsTheName) {
    auto managers = open();
    ASSERT_TRUE(managers);
    ASSERT_EQ(fcntl(managers->socket.get(), F_SETFL, 0), 0);
    const int socket = managers->socket.get();
    EXPECT_EQ(takeHandedOver({socket}, "telvorad.socket"), "");
    EXPECT_EQ(takeHandedOver({socket, dup(socket)}, "telvorad.socket:com.example.other"), "");
    EXPECT_EQ(takeHandedOver({socket, dup(socket)}, "com.example.other:telvorad.socket"), "");
    EXPECT_TRUE(connects());

    const UniqueFd notListening(::socket(AF_UNIX, SOCK_STREAM, 0)),
        internet(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(listen(internet.get(), 1), 0);
    for (const UniqueFd* wrong : {&notListening, &internet})
        EXPECT_EQ(takeHandedOver({wrong->get()}, "telvorad.socket"),
                  "the service manager handed over no listening Unix stream socket\n");
    EXPECT_EQ(takeHandedOver({socket, dup(socket)}, "a:b"),
              "the service manager handed over 2 descriptors, two of them for the same\n");
}

TEST_F(ListeningSocketTest, UsersTakeTurnsAndALaterDaemonGetsWhatWasNotAccepted) {
    const auto managers = open();
    asio::io_context loop;
    DescriptorClosers closers;
    std::vector<uid_t> served;
    Listener listener(
        loop, UniqueFd(dup(managers->socket.get())), closers,
        [&](UniqueFd, const Peer& peer) { served.push_back(peer.uid); },
        [](uid_t user) { return user != 8 ? std::optional(QuotaCharge()) : std::nullopt; });
    std::vector<UniqueFd> clients;
    const auto connectAs = [&](uid_t user) {
        ASSERT_EQ(syscall(SYS_setresuid, -1, user, -1), 0);  // of this thread
        clients.push_back(test::connectedSocket(path_));
        syscall(SYS_setresuid, -1, 0, -1);
    };
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    for (const uid_t user : {6, 6, 6, 8, 7})
        connectAs(user);
    listener.resume();
    while (served.size() < 4)
        loop.run_one();
    EXPECT_EQ(served, (std::vector<uid_t>{6, 7, 6, 6}));
    EXPECT_FALSE(listener.hasWaiting());

    connectAs(6);
    listener.close();
    loop.run();
    EXPECT_TRUE(UniqueFd(accept(managers->socket.get(), nullptr, nullptr)));
}

}  // namespace
}  // namespace telvora
