// SPDX-License-Identifier: Apache-2.0
//
// Reporting servers that fail: posted events are lost, the waiting client learns it, a 5xx disables the
// session's backend, and other sessions are not affected.
#include <gmock/gmock.h>

#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::ReportingFault;
using testing::IsEmpty;
using testing::Optional;

constexpr char kDisabled[] = "backend httpPost disabled by server 503 return code";

class ReportingServerFaults : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        laboratory().setBag("dravik", openBag());
        // Another client type reports to another server, which works.
        well_ = std::make_unique<lab::ReportingServer>(laboratory().pki());
        bags().setBag("fenlow", bagWithClients({entryFor(*well_)}));
        startDaemon();
        neighbour_ = open({.clientType = 9});
    }

    static Dictionary entryFor(const lab::ReportingServer& server) {
        Dictionary entry = openClientEntry();
        entry.set("post_url", server.eventsURL());
        return entry;
    }
    void expectNeighbourReports() { expectReport(*neighbour_, *well_); }

    std::unique_ptr<lab::ReportingServer> well_;
    std::unique_ptr<BlockingSession> neighbour_;
};

TEST_F(ReportingServerFaults, TellTheClientThatFlushesAndNobodyElse) {
    const struct {
        const char* what;
        std::optional<ReportingFault> fault;  // absent: connections are refused
        bool transportError;
    } cases[] = {{"no answer", ReportingFault::noAnswer, true},
                 {"half an answer", ReportingFault::halfAnswer, true},
                 {"404", ReportingFault::notFound, false},
                 {"refused", std::nullopt, true}};
    const auto session = open();
    for (const auto& [what, fault, transportError] : cases) {
        SCOPED_TRACE(what);
        const size_t from = daemon().logLineCount();
        if (!fault) reports().refuse();
        reports().setFault(fault.value_or(ReportingFault::none));
        session->send(4, 1, {{"a", 1}});
        const FlushAnswer flushed = session->flush();
        EXPECT_TRUE(flushed.answer);  // the posted events, arrived or not
        EXPECT_EQ(flushed.error.has_value(), transportError);
        if (transportError) expectLineBeginning("<3>HTTPSPostBackend(postJsonMessage): post error: ", from);
        expectNeighbourReports();
        reports().setFault(ReportingFault::none);
        ASSERT_TRUE(fault || reports().accept());
        expectReport(*session);
    }
}

TEST_F(ReportingServerFaults, EndABackendByServiceUnavailable) {
    const auto session = open();
    reports().setFault(ReportingFault::serviceUnavailable);
    session->send(4, 1);
    EXPECT_EQ(session->flush().error, makeTelvoraError(kDisabled, 503));
    expectLine(std::string("<6>postJSONMessage: ") + kDisabled);
    reports().setFault(ReportingFault::none);

    // The backend stays disabled for this session.
    const size_t arrived = reports().eventCount();
    EXPECT_EQ(session->send(4, 1), std::nullopt);
    EXPECT_EQ(session->send(4, 1, {}, 3), std::nullopt);
    EXPECT_EQ(session->flush().error, makeTelvoraError("Nothing to flush", -1));
    EXPECT_THAT(session->fetchStates(), Optional(IsEmpty()));
    EXPECT_EQ(reports().eventCount(), arrived);

    expectNeighbourReports();
    expectReport(*open());
}

TEST_F(ReportingServerFaults, HoldUpOnlyTheClientThatFlushes) {
    const auto session = open();
    reports().setFault(ReportingFault::hold);
    session->send(4, 1);
    const auto flushed = session->beginFlush();
    ASSERT_TRUE(reports().waitForMessages(1, kPatience));
    // Other calls of the same client are answered meanwhile.
    EXPECT_EQ(session->send(4, 2), std::nullopt);
    expectNeighbourReports();
    reports().setFault(ReportingFault::none);
    reports().releaseHeld();
    EXPECT_EQ(flushed().error, std::nullopt);
    expectReport(*session);
}

TEST_F(ReportingServerFaults, AreToldWhileAnotherBackendStillWaits) {
    well_->setFault(ReportingFault::noAnswer);
    laboratory().setBag("dravik", openBag({{"httpPost2", Dictionary{{"clients", Array{entryFor(*well_)}}}}}));
    const auto session = open({}, {"httpPost", "httpPost2"});
    reports().setFault(ReportingFault::hold);
    session->send(4, 1);
    EXPECT_TRUE(session->flush().error);
    reports().setFault(ReportingFault::none);
    reports().releaseHeld();
    EXPECT_TRUE(waitForEvents(2));
    EXPECT_EQ(session->flush().error, makeTelvoraError("Nothing to flush", -1));
}

}  // namespace
}  // namespace telvora::test
