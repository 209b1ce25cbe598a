// SPDX-License-Identifier: Apache-2.0
//
// Attacks by programs of another user. The canary is a client that must be served meanwhile.
#include <gmock/gmock.h>

#include <filesystem>
#include <thread>

#include "protocol/client_session_interface.h"
#include "protocol/status_interface.h"
#include "telvora/keys.h"
#include "tests/support/bags.h"
#include "tests/support/bus_peer.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/forked_child.h"
#include "tests/support/hostile_descriptors.h"
#include "tests/support/unix_socket.h"

namespace telvora::test {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kGreeting = "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"sv;

// Asks the daemon to agree that messages carry descriptors.
void authenticate(int connection) {
    send(connection, kGreeting.data(), kGreeting.size(), MSG_NOSIGNAL);
    std::string answer;
    char part[256];
    while (answer.find("AGREE_UNIX_FD") == std::string::npos && answer.find("ERROR") == std::string::npos) {
        const ssize_t size = recv(connection, part, sizeof part, 0);
        if (size <= 0) return;
        answer.append(part, static_cast<size_t>(size));
    }
}

class Attacks : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        laboratory().setBag("dravik", openBag());
        startDaemon();
        canary_ = open();
        expectReport(*canary_);
    }
    void TearDown() override {
        canary_.reset();
        DaemonFixture::TearDown();
    }

    // Runs the attack as another user and checks that the canary is served.
    void attack(const std::function<void()>& attacker) {
        EXPECT_EQ(inForkedChild([&](const ChildReport&) {
                      if (getuid() == 0 &&
                          (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0))
                          _exit(1);
                      attacker();
                  }),
                  "");
        expectReport(*canary_);
    }
    size_t entriesOf(const char* name) {
        const std::filesystem::directory_iterator entries("/proc/" + std::to_string(daemon().pid()) + "/" +
                                                          name);
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    }

    std::unique_ptr<BlockingSession> canary_;
};

TEST_F(Attacks, DescriptorsThatBlockWhenTheyAreClosed) {
    letOthersIn();
    const size_t bound =
        entriesOf("fd") + 8;  // event loops and the HTTP client open theirs with the first use
    const UniqueFd listener = silentListener();
    const std::string sockets[] = {daemon().socketPath(),
                                   (directory().path() / "run" / kTelvoradStatusSocketName).string()};
    for (const std::string& path : sockets) {
        for (const bool authenticated : {true, false}) {
            attack([&] {
                std::vector<UniqueFd> connections;
                for (int i = 0; i < 8; ++i) {
                    connections.push_back(connectedSocket(path));
                    if (!connections.back()) _exit(1);
                    if (authenticated) authenticate(connections.back().get());
                    // Not closed here: the attacker's own close would wait.
                    const int one = lingeringSocket(listener).release();
                    const int other = lingeringSocket(listener).release();
                    // Half a message, whose descriptors are never read, or no message.
                    sendWith(connections.back().get(), i % 2 == 0 ? "l" : "xxxxxxxxxxxxxxxxxxxx",
                             {one, other});
                }
            });
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (entriesOf("fd") > bound && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_LE(entriesOf("fd"), bound) << "no descriptor is left";
}

TEST_F(Attacks, WaitsForAHangingBagServerHoldNoThread) {
    std::vector<std::unique_ptr<BusPeer>> peers;
    for (const char* name : {"orbel", "vantor"})
        bags().setFault(name, lab::BagFault::hold);
    for (int i = 0; i < 270; ++i) {
        auto peer = std::make_unique<BusPeer>(connectedSocket(daemon().socketPath()));
        const SdBusMessage info =
            peer->newCall(kTelvoradPath, ClientSessionInterface::kWireName, "SetSessionInfo");
        const int clientType = i % 2 == 0 ? 5 : 6;
        ASSERT_GE(sd_bus_message_append(info.get(), "a{sv}aa{sv}asb", 2, kTelvoraSessionInfoClientType, "i",
                                        clientType, kTelvoraSessionInfoSessionID, "i", i, 0, 0, 0),
                  0);
        peer->send(info);
        peer->send(peer->newCall(kTelvoradPath, ClientSessionInterface::kWireName, "StartConfig"));
        peer->flush();
        peers.push_back(std::move(peer));
    }
    expectReport(*canary_);
    EXPECT_LE(entriesOf("task"), 12U);
    for (const char* name : {"orbel", "vantor"})
        bags().setFault(name, lab::BagFault::none);
    bags().releaseHeld();
}

}  // namespace
}  // namespace telvora::test
