// SPDX-License-Identifier: Apache-2.0
//
// The dashboard of a confined daemon's sessions and of telvoractl, and metrics adaptors within the sandbox.
#include <sys/syscall.h>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <cstdio>
#include <thread>

#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

class DashboardInDaemon : public DaemonFixture {
  protected:
    // Whether a socket of this machine is connected to the collector.
    bool isConnected() {
        char peer[32];
        std::snprintf(peer, sizeof peer, " 0100007F:%04X 01 ", laboratory().dashboard().port());
        return readFile("/proc/net/udp").find(peer) != std::string::npos;
    }
    void dashboardSend(const std::string& more) {
        expectDashboardSend("127.0.0.1:" + std::to_string(laboratory().dashboard().port()) + " " + more, 0);
    }
    static void expectDashboardSend(const std::string& more, int status) {
        expectRun(TELVORACTL_PATH " dashboard-send --device tool --category 4 --type 9 --collector " + more,
                  status);
    }
};

TEST_F(DashboardInDaemon, SessionsReportItsStateUploadLogDataAndSendNoDatagram) {
    laboratory().setBag("dravik",
                        bagWithBackends({{"dashboard", Dictionary{{"ip", "127.0.0.1"},
                                                                  {"port", "@dashboard_port@"},
                                                                  {"reliable", 50},
                                                                  {"display_url", "https://show.example/"},
                                                                  {"post_url", "@logdata@"}}}}));
    startDaemon();
    auto session = open({}, {"dashboard"});
    EXPECT_EQ(session->displayURL(), "https://show.example/");
    EXPECT_TRUE(isConnected());
    EXPECT_EQ(session->send(4, 1, {{"a", 1}}), std::nullopt);
    EXPECT_EQ(session->send(4, 1, {{"a", 1}}, 1), std::nullopt);
    const FlushAnswer flushed = session->flush();
    EXPECT_EQ(flushed.answer, std::nullopt);
    EXPECT_EQ(flushed.error, std::nullopt);
    const Array records{Dictionary{{"n", 1}, {"text", "\xc3\xbc=\n"}, {"data", Data{std::string(3, '\0')}}},
                        Array{true, -0.5, Date{1.5}}, "x"};
    EXPECT_TRUE(session->uploadLogData(records).uploaded);
    EXPECT_THAT(laboratory().logData().uploads(), ElementsAre(records));
    EXPECT_THAT(laboratory().logData().problems(), IsEmpty());
    expectLine("<7>DashboardBackend(uploadLogData): Log data uploaded to " +
               laboratory().logData().location(1));
    expectLine("<7>uploadLogData: Log data array upload successful");
    session->finish();

    session.reset();
    while (isConnected())
        std::this_thread::yield();
    // A datagram of the daemon would have arrived before this one.
    dashboardSend("--unreliable");
    ASSERT_TRUE(laboratory().dashboard().waitForReports(1, kPatience));
    EXPECT_EQ(laboratory().dashboard().summary().integer("received"), 1);
    EXPECT_EQ(laboratory().dashboard().reports()[0].device, "tool");
}

TEST_F(DashboardInDaemon, TelvoractlSendsInEveryMode) {
    const struct {
        std::string arguments;
        bool wantsAcknowledgement, configuredByBag;
    } modes[] = {{"--unreliable", false, true}, {"--period 20", true, true}, {"", true, false}};
    size_t expected = 0;
    for (const auto& mode : modes) {
        SCOPED_TRACE(mode.arguments);
        dashboardSend("--count 30 --component 7 --payload note=a=b\\c --payload ok:=true --payload empty= " +
                      mode.arguments + " --session-id " + std::to_string(expected));
        ASSERT_TRUE(laboratory().dashboard().waitForReports(expected += 30, kPatience));
        const lab::DashboardReport report = laboratory().dashboard().reports().back();
        EXPECT_EQ(report.wantsAcknowledgement, mode.wantsAcknowledgement);
        EXPECT_EQ(report.configuredByBag, mode.configuredByBag);
        EXPECT_EQ(report.componentType, 7);
        EXPECT_THAT(lab::dashboardPairs(report.text),
                    ElementsAre(Pair("empty", "empty"), Pair("ok", "1"), Pair("note", "a=b\\c")));
    }
    EXPECT_EQ(laboratory().dashboard().summary().real("deliveryRatio"), 1);
    EXPECT_THAT(laboratory().dashboard().problems(), IsEmpty());
    for (const char* bad : {"127.0.0.1", "127.0.0.1:0", "127.0.0.1:65536", ":1", "name:1", "127.0.0.1:1x"})
        expectDashboardSend(bad, 2);
}

class VodexAdaptor : public DaemonFixture {
  protected:
    VodexAdaptor() {
        const Dictionary bag = openBag({{"vodex", Dictionary()}});
        laboratory().setBag("quillet", bag);  // client type 7
        laboratory().setBag("dravik", bag);   // client type 8, which has no adaptor
    }
    // The adaptor and the authorities lie where the sandbox allows the daemon to read these files alone.
    void start(const std::string& adaptor) {
        const auto path = directory().path() / "adaptor.so", authorities = directory().path() / "ca.pem";
        copy_file(adaptor, path, std::filesystem::copy_options::overwrite_existing);
        std::filesystem::copy(laboratory().pki().caFile(), authorities);
        startDaemon([&](DaemonOptions& options) {
            options.defaults = {{"vodexAdaptorPath", path.string()},
                                {"caFile", authorities.string()},
                                {"shutdownMilliseconds", 100}};
        });
    }
    Session openWithAdaptor() { return open({.clientType = 7}, {"httpPost", "vodex"}); }
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
}

TEST_F(VodexAdaptor, CannotLeaveTheSandbox) {
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
                   {"socket", name},
                   {"landlockAbi", syscall(SYS_landlock_create_ruleset, nullptr, 0, 1)}});
    expectLine("escape: done");
    EXPECT_THAT(daemon().logLines(), Each(Not(StartsWith("escape "))));
    EXPECT_EQ(readFile(secret), "secret");
    // The daemon goes on.
    openWithAdaptor();
    expectReport(*session);
}

TEST_F(VodexAdaptor, ThatHangsHoldsUpNeitherOthersNorTheEnd) {
    start(TELVORA_TEST_ADAPTORS "/sendHangs.so");
    std::vector<Session> hanging;
    const auto inHierarchy = [](int64_t clientType, int64_t level) {
        return SessionSettings{.clientType = clientType, .hierarchyToken = hierarchyToken("t", level)};
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
    EXPECT_EQ(status().array("sessions")->size(), hanging.size() + 2);
    stopDaemon();
}

}  // namespace
}  // namespace telvora::test
