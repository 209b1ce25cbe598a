// SPDX-License-Identifier: Apache-2.0
#include "tests/support/daemon_fixture.h"

#include <csignal>

namespace telvora::test {
namespace {

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

}  // namespace

void DaemonFixture::SetUp() {
    const auto keys = directory_.path() / "lab";
    std::filesystem::create_directory(keys);
    std::filesystem::create_symlink(TELVORA_TEST_BAG_KEY, keys / "bag-key.pem");
    auto laboratory = lab::Laboratory::make(keys);
    ASSERT_TRUE(laboratory) << laboratory.error();
    laboratory_ = std::move(*laboratory);
}

void DaemonFixture::TearDown() {
    if (daemon_) stopDaemon();
}

void DaemonFixture::startDaemon(const std::function<void(DaemonOptions&)>& change) {
    launchDaemon(change);
    ASSERT_TRUE(daemon_->waitUntilListening()) << joined(daemon_->logLines());
}

void DaemonFixture::launchDaemon(const std::function<void(DaemonOptions&)>& change) {
    DaemonOptions options =
        DaemonOptions::forLaboratory(directory_.path(), laboratory_->pki(), bags().baseURL());
    if (change) change(options);
    daemon_ = std::make_unique<DaemonProcess>(std::move(options));
}

void DaemonFixture::letOthersIn() {
    for (const auto& path : {directory_.path(), directory_.path() / "run"})
        std::filesystem::permissions(path, std::filesystem::perms(0755));
    directory_.write(
        "config/entitlements.d/60-nobody.plist",
        "<plist version=\"1.0\"><dict><key>User</key><integer>65534</integer><key>Entitlements</key>"
        "<dict><key>com.zandor.private.telvorad</key><true/></dict></dict></plist>");
}

void DaemonFixture::stopDaemon() {
    daemon_->process().signal(SIGTERM);
    awaitDaemonsEnd();
}

void DaemonFixture::awaitDaemonsEnd(int status) {
    EXPECT_EQ(daemon_->process().waitForExit(kPatience), status);
    daemon_->process().errors().linesToTheEnd(kPatience);  // all lines have arrived then
    EXPECT_EQ(daemon_->sanitizerReports(), std::vector<std::string>());
    if (HasFailure()) std::cerr << "The daemon's log:\n" << joined(daemon_->logLines());
    daemon_.reset();
}

std::unique_ptr<BlockingSession> DaemonFixture::open(const SessionSettings& settings,
                                                     const std::vector<std::string>& backends) {
    auto session = std::make_unique<BlockingSession>(daemon().socketPath(), settings);
    EXPECT_EQ(session->startConfig(), ReportingStates(backends)) << "session " << settings.sessionID;
    return session;
}

void DaemonFixture::expectReport(BlockingSession& session, lab::ReportingServer& server) {
    const size_t before = server.eventCount();
    session.send(4, 2);
    EXPECT_EQ(session.flush().error, std::nullopt);
    EXPECT_TRUE(server.waitForEvents(before + 1, kPatience));
}

void DaemonFixture::expectLine(std::string_view line, size_t from) {
    EXPECT_TRUE(daemon_->waitForLine(line, from)) << "no line: " << line;
}

void DaemonFixture::expectLineBeginning(std::string_view beginning, size_t from) {
    EXPECT_TRUE(daemon_->waitForLineBeginning(beginning, from)) << "no line beginning: " << beginning;
}

}  // namespace telvora::test
