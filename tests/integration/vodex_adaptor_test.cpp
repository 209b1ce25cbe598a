// SPDX-License-Identifier: Apache-2.0
//
// Metrics adaptors in the real daemon, within its sandbox.
#include <gmock/gmock.h>
#include <sys/syscall.h>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <fstream>

#include "client/status_query.h"
#include "telvora/keys.h"
#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

class VodexAdaptor : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        const Dictionary bag = openBag({{"vodex", Dictionary()}});
        laboratory().setBag("quillet", bag);  // client type 7
        laboratory().setBag("dravik", bag);   // client type 8, which has no adaptor
    }
    // The adaptor lies where the sandbox does not allow the daemon to read.
    void start(const std::string& adaptor) {
        const auto path = directory().path() / "adaptor.so";
        copy_file(adaptor, path, std::filesystem::copy_options::overwrite_existing);
        startDaemon([&](DaemonOptions& options) {
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

    // The built-in bag for an unreachable server has this backend alone.
    stopDaemon();
    bags().setFault("quillet", lab::BagFault::noAnswer);
    start(TELVORA_EXAMPLE_ADAPTOR);
    open({.clientType = 7}, {"vodex"});
    expectLineBeginning("vodex-adaptor: report 1: method 0 respCode 0 { ");
}

TEST_F(VodexAdaptor, CannotLeaveTheSandbox) {
    const long landlockABI = syscall(SYS_landlock_create_ruleset, nullptr, 0, 1);
    std::vector<std::string> expected;
    std::ifstream table(TELVORA_ESCAPES);
    for (std::string line; std::getline(table, line);) {
        if (!line.starts_with("escape ")) continue;
        if (line.ends_with("@ABSTRACT@")) {
            line.resize(line.size() - std::string("@ABSTRACT@").size());
            line += landlockABI >= 6 ? "EPERM" : "success";
        }
#ifdef TELVORA_SANITIZED  // the runtimes need these
        if (line.starts_with("escape fork:") || line.starts_with("escape ptrace:") ||
            line.starts_with("escape process_vm_readv:"))
            continue;
#endif
        expected.push_back(line);
    }
    const auto secret = directory().write("client/secret", "secret");
    asio::io_context context;
    // An abstract address that the kernel chooses.
    const asio::local::stream_protocol::acceptor listener(context,
                                                          asio::local::stream_protocol::endpoint(""));
    const std::string name = listener.local_endpoint().path().substr(1);
    start(TELVORA_TEST_ADAPTORS "/escaping.so");
    directory().write("state/file", "the daemon's");
    const auto session = openWithAdaptor();
    session->send(1, 1,
                  {{"directory", secret.parent_path().string()},
                   {"own", (directory().path() / "state").string()},
                   {"configuration", (directory().path() / "config/device.plist").string()},
                   {"process", getpid()},
                   {"socket", name}});
    expectLine("escape: done");
    std::vector<std::string> found = daemon().logLines();
    std::erase_if(found, [](const std::string& line) { return !line.starts_with("escape "); });
    EXPECT_THAT(found, testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ(readFile(secret), "secret");
    // The daemon goes on.
    openWithAdaptor();
    expectReport(*session);
}

TEST_F(VodexAdaptor, ThatHangsHoldsUpNeitherOthersNorTheEnd) {
    start(TELVORA_TEST_ADAPTORS "/sendHangs.so");
    std::vector<std::unique_ptr<BlockingSession>> hanging;
    const auto inHierarchy = [](int64_t clientType, int64_t level) {
        return SessionSettings{.clientType = clientType,
                               .hierarchyToken = Dictionary{{kTelvoraHierarchyTokenTokenID, "t"},
                                                            {kTelvoraHierarchyTokenLevel, level}}};
    };
    for (int i = 0; i < 5; ++i) {  // more than the pool's normal threads
        const size_t from = daemon().logLineCount();
        hanging.push_back(std::make_unique<BlockingSession>(daemon().socketPath(), inHierarchy(7, 1)));
        hanging.back()->beginStartConfig();
        expectLine("sendHangs", from);
    }
    expectReport(*open());
    // The parent passes on IDs and states, the child takes them over, and the status shows all.
    const auto parent = open(inHierarchy(8, 0)), child = open(inHierarchy(8, 2));
    expectReport(*parent);
    expectReport(*child);
    const auto status = queryStatus(kGetStatus, statusSocketBeside(daemon().socketPath()), kPatience);
    ASSERT_TRUE(status) << status.error().message;
    EXPECT_EQ(status->array("sessions")->size(), hanging.size() + 2);
    stopDaemon();
}

}  // namespace
}  // namespace telvora::test
