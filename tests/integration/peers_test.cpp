// SPDX-License-Identifier: Apache-2.0
//
// The real daemon and the peers on its socket: those that it lets in, those that it doesn't, and those that
// misbehave.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "telvora-lab/bags.h"
#include "telvora/keys.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::ChildProcess;
using lab::ChildProcessOptions;
using lab::DaemonOptions;
using lab::kPatience;
using lab::openBag;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

UniqueFd connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    return fd;
}

class Peers : public DaemonFixture {};

TEST_F(Peers, WithoutTheEntitlementAreHungUpOn) {
    startDaemon([&](DaemonOptions& options) { options.entitlement.reset(); });
    const UniqueFd peer = connectTo(daemon().socketPath());
    ASSERT_TRUE(peer);
    char byte = 0;
    EXPECT_EQ(read(peer.get(), &byte, 1), 0);
    expectLineBeginning("<7>listener: new XPC connection ");
    EXPECT_THAT(daemon().logLines(), Each(Not(HasSubstr("initWithSessionDelegate"))));
}

TEST_F(Peers, MayBeWrittenBySomebodyElse) {
    laboratory().setBag("dravik", openBag());
    startDaemon();
    ChildProcessOptions options;
    options.arguments = {"/usr/bin/python3", TELVORA_GDBUS_CLIENT, daemon().socketPath(), "8"};
    ChildProcess client(options);
    // Its exit status alone is its verdict: GLib warns on standard error of connections that end as they
    // must.
    EXPECT_EQ(client.waitForExit(kPatience), 0) << testing::PrintToString(client.errors().lines());

    // Start, two reports and finish in one batch, and the end message on its own way at the connection's end.
    EXPECT_TRUE(reports().waitForEvents(5, kPatience));
    const std::vector<Dictionary> events = reports().events();
    const auto report = std::find_if(events.begin(), events.end(), [](const Dictionary& event) {
        return event.integer("_method") == 5 && event.integer("_status") == 6;
    });
    ASSERT_NE(report, events.end());
    EXPECT_EQ(*report->string("text"), "grüezi");
    EXPECT_EQ(*report->find("huge"), PropertyList(~uint64_t{0}));
    EXPECT_EQ(report->real("date"), 1000.5);
    EXPECT_EQ(*report->string(kTelvoraUserInfoClientName), "gdbus");
    for (const char* container : {"data", "list", "tree"})
        EXPECT_FALSE(report->contains(container)) << container;
}

}  // namespace
}  // namespace telvora::test
