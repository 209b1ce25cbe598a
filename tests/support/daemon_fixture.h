// SPDX-License-Identifier: Apache-2.0
//
// DaemonFixture: the base of the tests that drive the real daemon, and expectRun() for programs. Each test
// has its own laboratory, whose bag for client type 8 is open, and starts the daemon after it has set up the
// laboratory. The fixture stops the daemon at the end; it must exit with status 0 and without a sanitizer's
// report.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "client/status_query.h"
#include "telvora-lab/laboratory.h"
#include "tests/support/bags.h"
#include "tests/support/blocking_session.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {

// A command prefix that runs a command as another user, if this process is root.
inline constexpr char kAsNobody[] = "/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups ";

// The words of a command line without quotes.
inline std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

// Runs a command to its end. Expects its exit status, and `says` in a line of its output or errors.
inline Finished expectRun(const std::string& command, int status, const std::string& says = "",
                          std::string_view input = "",
                          const std::map<std::string, std::string>& environment = {}) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, command);
    Finished run = runToEnd({wordsOf(command), environment}, input);
    EXPECT_EQ(run.status, status) << testing::PrintToString(run.errors);
    std::vector<std::string> said = run.output;
    said.insert(said.end(), run.errors.begin(), run.errors.end());
    if (!says.empty()) {
        EXPECT_THAT(said, testing::Contains(testing::HasSubstr(says)));
    }
    return run;
}

using Session = std::unique_ptr<BlockingSession>;

class DaemonFixture : public testing::Test {
  protected:
    using Change = std::function<void(DaemonOptions&)>;

    DaemonFixture() {
        directory_.write("lab/bag-key.pem", readFile(TELVORA_TEST_BAG_KEY));
        laboratory_ = lab::Laboratory::make(directory_.path() / "lab").value();
        laboratory_->setBag("dravik", openBag());
    }
    void TearDown() override {
        if (daemon_) stopDaemon();
    }

    lab::Laboratory& laboratory() { return *laboratory_; }
    lab::BagServer& bags() { return laboratory_->bags(); }
    lab::ReportingServer& reports() { return laboratory_->reports(); }
    DaemonProcess& daemon() { return *daemon_; }
    const TemporaryDirectory& directory() const { return directory_; }

    // Starts the daemon with the options that `change` has modified, and waits until it listens.
    void startDaemon(const Change& change = {}) {
        launchDaemon(change);
        ASSERT_TRUE(daemon_->waitUntilListening()) << testing::PrintToString(daemon_->logLines());
    }
    // Starts it without waiting.
    void launchDaemon(const Change& change = {}) {
        DaemonOptions options{directory_.path(), *laboratory_};
        if (change) change(options);
        daemon_ = std::make_unique<DaemonProcess>(options);
    }
    // Gives other users access to the sockets of the listening daemon, as the service manager does, and
    // entitles the user of kAsNobody.
    void letOthersIn() {
        for (const auto& path : {directory_.path(), directory_.path() / "run"})
            std::filesystem::permissions(path, std::filesystem::perms(0755));
        directory_.write(
            "config/entitlements.d/60-nobody.plist",
            "<plist version=\"1.0\"><dict><key>User</key><integer>65534</integer><key>Entitlements</key>"
            "<dict><key>com.zandor.private.telvorad</key><true/></dict></dict></plist>");
    }
    // Stops the daemon and checks its exit.
    void stopDaemon() {
        daemon_->stop();
        awaitDaemonsEnd();
    }
    // Waits for the daemon's own end, and checks its exit.
    void awaitDaemonsEnd(int status = 0) {
        EXPECT_EQ(daemon_->waitForExit(), status);
        const std::vector<std::string> lines = daemon_->errors().linesToTheEnd();
        for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                 "WARNING: ThreadSanitizer", "runtime error:"})
            EXPECT_THAT(lines, testing::Each(testing::Not(testing::HasSubstr(mark))));
        for (size_t i = 0; HasFailure() && i < lines.size(); ++i)
            std::cerr << lines[i] << '\n';
        daemon_.reset();
    }

    // A session with the daemon, configured with these backends.
    Session open(const SessionSettings& settings = {},
                 const std::vector<std::string>& backends = {"httpPost"}) {
        auto session = std::make_unique<BlockingSession>(daemon().socketPath(), settings);
        EXPECT_EQ(session->startConfig(), ReportingStates(backends)) << "session " << settings.sessionID;
        return session;
    }
    // Checks that the session reports to this server.
    void expectReport(BlockingSession& session, lab::ReportingServer& server) {
        const size_t before = server.eventCount();
        session.send(4, 2);
        EXPECT_EQ(session.flush().error, std::nullopt);
        EXPECT_TRUE(server.waitForEvents(before + 1, kPatience));
    }
    void expectReport(BlockingSession& session) { expectReport(session, reports()); }
    bool waitForEvents(size_t count) { return reports().waitForEvents(count, kPatience); }

    // The administrators' status.
    Dictionary status() {
        const auto answer = queryStatus(kGetStatus, statusSocketBeside(daemon().socketPath()), kPatience);
        EXPECT_TRUE(answer) << answer.error().message;
        return answer.value();
    }
    // Expects the whole line, with its level: "<7>...". Waits for it.
    void expectLine(std::string_view line, size_t from = 0) {
        EXPECT_TRUE(daemon_->errors().waitForLine(line, from)) << "no line: " << line;
    }
    void expectLineBeginning(std::string_view beginning, size_t from = 0) {
        const auto begins = [beginning](std::string_view line) { return line.starts_with(beginning); };
        EXPECT_TRUE(daemon_->errors().waitFor(begins, from)) << "no line beginning: " << beginning;
    }

  private:
    TemporaryDirectory directory_;
    std::unique_ptr<lab::Laboratory> laboratory_;
    std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace telvora::test
