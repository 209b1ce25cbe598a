// SPDX-License-Identifier: Apache-2.0
//
// The dashboard of a confined daemon's sessions, and of telvoractl.
#include <gmock/gmock.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/expect_run.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class DashboardInDaemon : public DaemonFixture {
  protected:
    // The number of this machine's sockets that are connected to the collector.
    size_t connectedSockets() {
        char peer[32];
        std::snprintf(peer, sizeof peer, " 0100007F:%04X 01 ", laboratory().dashboard().port());
        std::ifstream table("/proc/net/udp");
        size_t count = 0;
        for (std::string line; std::getline(table, line);)
            count += line.find(peer) != std::string::npos ? 1 : 0;
        return count;
    }

    static void dashboardSend(const std::string& collector, const std::string& more, int status = 0) {
        expectRun(wordsOf(TELVORACTL_PATH " dashboard-send --device tool --category 4 --type 9 --collector " +
                          collector + " " + more),
                  status);
    }
    std::string collector() { return "127.0.0.1:" + std::to_string(laboratory().dashboard().port()); }
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
    EXPECT_EQ(connectedSockets(), 1u);

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
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (connectedSockets() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(connectedSockets(), 0u);

    // A datagram of the daemon would have arrived before this one.
    dashboardSend(collector(), "--unreliable");
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
        dashboardSend(collector(),
                      "--count 30 --component 7 --payload note=a=b\\c --payload ok:=true --payload empty= "
                      "--session-id " +
                          std::to_string(expected) + " " + mode.arguments);
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
        dashboardSend(bad, "", 2);
}

}  // namespace
}  // namespace telvora::test
