// SPDX-License-Identifier: Apache-2.0
//
// Metrics adaptors in the real daemon, within its sandbox.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>

#include "telvora-lab/bags.h"
#include "tests/support/daemon_fixture.h"
#include "util/unique_fd.h"

namespace telvora::test {
namespace {

class VodexAdaptor : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        const Dictionary bag = lab::openBag({{"vodex", Dictionary()}});
        laboratory().setBag("quillet", bag);  // client type 7
        laboratory().setBag("dravik", bag);   // client type 8, which has no adaptor
    }
    // With the adaptor in a place that the sandbox would not let the daemon read.
    void start(const std::string& adaptor) {
        const auto path = directory().path() / "adaptor.so";
        copy_file(adaptor, path, std::filesystem::copy_options::overwrite_existing);
        startDaemon([&](lab::DaemonOptions& options) {
            options.defaults = {{"vodexAdaptorPath", path.string()}, {"shutdownMilliseconds", 100}};
        });
    }
    std::unique_ptr<BlockingSession> openWithAdaptor() {
        return open({.clientType = 7}, {"httpPost", "vodex"});
    }
};

TEST_F(VodexAdaptor, GetsEveryReport) {
    start(TELVORA_EXAMPLE_ADAPTOR);
    auto session = openWithAdaptor();
    expectLineBeginning("vodex-adaptor: report 1: method 0 respCode 0 { ");
    session->send(5, 6, {{"codec", "opus"}, {"frames", 40}, {"list", Array{1, 2}}});
    expectLine(
        "vodex-adaptor: report 2: method 5 respCode 6 { codec: string of 4 bytes, frames: integer, "
        "list: array of 2 }");
    session->send(65535, 65535);
    expectLine("vodex-adaptor: report 3: method 65535 respCode 65535 { }");
    session.reset();
    expectLine("vodex-adaptor: 4 reports");

    // The bag that stands in for one that can't be had names this backend alone.
    stopDaemon();
    bags().setFault("quillet", lab::BagFault::noAnswer);
    start(TELVORA_EXAMPLE_ADAPTOR);
    open({.clientType = 7}, {"vodex"});
    expectLineBeginning("vodex-adaptor: report 1: method 0 respCode 0 { ");
}

TEST_F(VodexAdaptor, ThatThrowsCostsNothingElse) {
    start(TELVORA_TEST_ADAPTORS "/sendThrows.so");
    const auto session = openWithAdaptor();
    expectReport(*session);
    expectLine("<3>VodexBackend(sendMessage): the Vodex adaptor threw an exception");
}

#ifdef TELVORA_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// An abstract Unix socket that listens, and its name.
std::pair<UniqueFd, std::string> abstractSocket() {
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address.sun_family;  // the kernel chooses the name
    EXPECT_EQ(bind(listener.get(), generic, length), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    length = sizeof address;
    EXPECT_EQ(getsockname(listener.get(), generic, &length), 0);
    return {std::move(listener),
            std::string(address.sun_path + 1, length - offsetof(sockaddr_un, sun_path) - 1)};
}

TEST_F(VodexAdaptor, CannotLeaveTheSandbox) {
    const long landlockABI = syscall(SYS_landlock_create_ruleset, nullptr, 0, 1);
    const struct {
        const char* attempt;
        int error;
        bool tried = true;
        bool refused = true;
    } table[] = {
        {"read shadow", EACCES},
        {"list home", EACCES},
        {"read home", EACCES},
        {"read home through proc", EACCES},
        {"write home", EACCES},
        {"truncate home", EPERM},
        {"make in home", EACCES},
        {"make in tmp", EACCES},
        {"remove from home", EACCES},
        {"move into home", EACCES},
        {"link home", EPERM},
        {"symlink", EPERM},
        {"chmod home", EPERM},
        {"chown home", EPERM},
        {"utimes home", EPERM},
        {"write own configuration", EACCES},
        {"device", EACCES},
        {"exec", EPERM},
        {"execveat", EPERM},
        {"fork", EPERM, !kSanitized},
        {"ptrace", EPERM, !kSanitized},
        {"process_vm_readv", EPERM, !kSanitized},
        {"read its memory", EACCES},
        {"signal", EPERM},
        {"signal all", EPERM},
        {"signal a thread", EPERM},
        {"pidfd_open", EPERM},
        {"signal by a descriptor", EPERM},
        {"raw socket", EPERM},
        {"packet socket", EPERM},
        {"listen unbound", EPERM},
        {"bind TCP", EACCES, true, landlockABI >= 4},
        {"abstract socket", EPERM, true, landlockABI >= 6},
        {"mount", EPERM},
        {"unshare", EPERM},
        {"load a module", EPERM},
        {"load a module's file", EPERM},
        {"bpf", EPERM},
        {"io_uring", EPERM},
        {"become root", EPERM},
    };
    std::vector<std::string> expected;
    for (const auto& row : table) {
        const int error = row.refused ? row.error : 0;
        if (row.tried)
            expected.push_back(std::string("escape ") + row.attempt + ": " + std::to_string(error));
    }
    const auto secret = directory().write("client/secret", "secret");
    const auto [listener, name] = abstractSocket();
    start(TELVORA_TEST_ADAPTORS "/escaping.so");
    directory().write("state/file", "the daemon's");
    const auto session = openWithAdaptor();
    session->send(1, 1,
                  {{"directory", secret.parent_path().string()},
                   {"own", (directory().path() / "state").string()},
                   {"process", getpid()},
                   {"socket", name}});
    expectLine("escape: done");
    std::vector<std::string> found = daemon().logLines();
    std::erase_if(found, [](const std::string& line) { return !line.starts_with("escape "); });
    EXPECT_EQ(found, expected);
    EXPECT_EQ(lab::readFile(secret), "secret");
    // The daemon goes on.
    openWithAdaptor();
    expectReport(*session);
}

TEST_F(VodexAdaptor, ThatHangsHoldsUpNeitherOthersNorTheEnd) {
    start(TELVORA_TEST_ADAPTORS "/sendHangs.so");
    std::vector<std::unique_ptr<BlockingSession>> hanging;
    for (int i = 0; i < 5; ++i) {  // more than the daemon has runners
        const size_t from = daemon().logLineCount();
        hanging.push_back(
            std::make_unique<BlockingSession>(daemon().socketPath(), SessionSettings{.clientType = 7}));
        hanging.back()->beginStartConfig();
        expectLine("sendHangs", from);
    }
    expectReport(*open());
    stopDaemon();
}

}  // namespace
}  // namespace telvora::test
