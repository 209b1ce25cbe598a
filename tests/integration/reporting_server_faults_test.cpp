// SPDX-License-Identifier: Apache-2.0
//
// What the daemon makes of reporting servers that fail: events that were sent are gone, the client that waits
// is told, a 5xx ends the backend of that session, and nobody else notices.
#include <gmock/gmock.h>

#include "telvora-lab/bags.h"
#include "tests/support/blocking_session.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::bagWithClients;
using lab::kPatience;
using lab::openBag;
using lab::openClientEntry;
using lab::ReportingFault;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

constexpr char kDisabled[] = "backend httpPost disabled by server 503 return code";

class ReportingServerFaults : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        // Another client type reports to another server, which is well.
        well_ = std::make_unique<lab::ReportingServer>(laboratory().pki());
        Dictionary entry = openClientEntry();
        entry.set("post_url", well_->eventsURL());
        bags().setBag("fenlow", bagWithClients({entry}));
        laboratory().setBag("dravik", openBag());
        startDaemon();
        neighbour_ = open(9);
    }

    std::unique_ptr<BlockingSession> open(int64_t clientType) {
        SessionSettings settings;
        settings.clientType = clientType;
        auto session = std::make_unique<BlockingSession>(daemon().socketPath(), settings);
        EXPECT_THAT(session->startConfig(), Optional(ElementsAre("httpPost")));
        return session;
    }
    static void expectReports(BlockingSession& session, lab::ReportingServer& server) {
        const size_t before = server.eventCount();
        session.send(4, 2, {});
        EXPECT_EQ(session.flush().second, std::nullopt);
        EXPECT_TRUE(server.waitForEvents(before + 1, kPatience));
    }
    void expectNeighbourReports() { expectReports(*neighbour_, *well_); }
    // That `session` can still report.
    void expectReports(BlockingSession& session) { expectReports(session, reports()); }

    std::unique_ptr<lab::ReportingServer> well_;
    std::unique_ptr<BlockingSession> neighbour_;
};

TEST_F(ReportingServerFaults, TellTheClientThatFlushesAndNobodyElse) {
    const struct {
        std::optional<ReportingFault> fault;  // none: connections are refused
        bool transportError;
    } cases[] = {{ReportingFault::noAnswer, true},
                 {ReportingFault::halfAnswer, true},
                 {ReportingFault::notFound, false},
                 {std::nullopt, true}};
    const auto session = open(8);
    for (const auto& [fault, transportError] : cases) {
        SCOPED_TRACE(fault ? static_cast<int>(*fault) : -1);
        const size_t from = daemon().logLineCount();
        if (!fault) reports().refuse();
        reports().setFault(fault.value_or(ReportingFault::none));
        session->send(4, 1, {{"a", 1}});
        const auto [answer, error] = session->flush();
        EXPECT_TRUE(answer);  // what was sent, whether or not it arrived
        EXPECT_EQ(error.has_value(), transportError);
        if (transportError) expectLineBeginning("<3>HTTPSPostBackend(postJsonMessage): post error: ", from);
        expectNeighbourReports();
        reports().setFault(ReportingFault::none);
        ASSERT_TRUE(fault || reports().accept());
        expectReports(*session);
    }
}

TEST_F(ReportingServerFaults, EndABackendByServiceUnavailable) {
    const auto session = open(8);
    reports().setFault(ReportingFault::serviceUnavailable);
    session->send(4, 1, {});
    EXPECT_EQ(session->flush().second, makeTelvoraError(kDisabled, 503));
    expectLine(std::string("<6>postJSONMessage: ") + kDisabled);
    reports().setFault(ReportingFault::none);

    // Disabled for this session, whatever it does.
    const size_t arrived = reports().eventCount();
    EXPECT_EQ(session->send(4, 1, {}), std::nullopt);
    EXPECT_EQ(session->send(4, 1, {}, 3), std::nullopt);
    EXPECT_EQ(session->flush().second, makeTelvoraError("Nothing to flush", -1));
    EXPECT_THAT(session->fetchStates(), Optional(IsEmpty()));
    EXPECT_EQ(reports().eventCount(), arrived);

    expectNeighbourReports();
    expectReports(*open(8));
}

TEST_F(ReportingServerFaults, HoldUpOnlyTheClientThatFlushes) {
    const auto session = open(8);
    reports().setFault(ReportingFault::hold);
    session->send(4, 1, {});
    const auto flushed = session->beginFlush();
    ASSERT_TRUE(reports().waitForMessages(1, kPatience));
    // The same client's other calls are answered meanwhile, too.
    EXPECT_EQ(session->send(4, 2, {}), std::nullopt);
    expectNeighbourReports();
    reports().setFault(ReportingFault::none);
    reports().releaseHeld();
    EXPECT_EQ(flushed().second, std::nullopt);
    expectReports(*session);
}

}  // namespace
}  // namespace telvora::test
