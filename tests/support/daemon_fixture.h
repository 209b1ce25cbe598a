// SPDX-License-Identifier: Apache-2.0
//
// DaemonFixture: the base of the tests that drive the real daemon. Each test has its own laboratory, and
// starts the daemon after it has set up the laboratory. The fixture stops the daemon at the end; it must exit
// with status 0 and without a sanitizer's report.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "telvora-lab/laboratory.h"
#include "tests/support/blocking_session.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {

// A command prefix that runs a command as another user, if this process is root.
inline constexpr char kAsNobody[] = "/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups ";

class DaemonFixture : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    lab::Laboratory& laboratory() { return *laboratory_; }
    lab::BagServer& bags() { return laboratory_->bags(); }
    lab::ReportingServer& reports() { return laboratory_->reports(); }
    const TemporaryDirectory& directory() const { return directory_; }

    // Starts the daemon with the options that `change` has modified, and waits until it listens.
    void startDaemon(const std::function<void(DaemonOptions&)>& change = {});
    // Starts it without waiting.
    void launchDaemon(const std::function<void(DaemonOptions&)>& change);
    // Gives other users access to the sockets of the listening daemon, as the service manager does, and
    // entitles the user of kAsNobody.
    void letOthersIn();
    // Stops the daemon and checks its exit.
    void stopDaemon();
    // Waits for the daemon's own end, and checks its exit.
    void awaitDaemonsEnd(int status = 0);
    DaemonProcess& daemon() { return *daemon_; }

    // A session with the daemon, configured with these backends.
    std::unique_ptr<BlockingSession> open(const SessionSettings& settings = {},
                                          const std::vector<std::string>& backends = {"httpPost"});
    // Checks that the session reports to this server.
    void expectReport(BlockingSession& session, lab::ReportingServer& server);
    void expectReport(BlockingSession& session) { expectReport(session, reports()); }
    bool waitForEvents(size_t count) { return reports().waitForEvents(count, kPatience); }

    // Expects the whole line, with its level: "<7>...". Waits for it.
    void expectLine(std::string_view line, size_t from = 0);
    void expectLineBeginning(std::string_view beginning, size_t from = 0);

  private:
    TemporaryDirectory directory_;
    std::unique_ptr<lab::Laboratory> laboratory_;
    std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace telvora::test
