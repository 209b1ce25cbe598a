// SPDX-License-Identifier: Apache-2.0
//
// DaemonFixture: the base of the tests that drive the real daemon. Each test has a laboratory of its own and
// starts the daemon when it has told the laboratory what to serve. At the end the daemon is stopped; it must
// exit with status 0 and without a sanitizer's report.
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

// What runs a command as another user, if this one is root.
inline constexpr char kAsNobody[] = "/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups ";

class DaemonFixture : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    lab::Laboratory& laboratory() { return *laboratory_; }
    lab::BagServer& bags() { return laboratory_->bags(); }
    lab::ReportingServer& reports() { return laboratory_->reports(); }
    const lab::TemporaryDirectory& directory() const { return directory_; }

    // Starts the daemon, after `change` has had its way with the options, and waits until it listens.
    void startDaemon(const std::function<void(lab::DaemonOptions&)>& change = {});
    // The same without waiting.
    void launchDaemon(const std::function<void(lab::DaemonOptions&)>& change);
    // Lets others reach the sockets of the daemon that listens, as they may where the service manager makes
    // the directories, and lets the user of kAsNobody be its client.
    void letOthersIn();
    // Stops the daemon now and checks how it ends.
    void stopDaemon();
    // Waits for its end without stopping it, and checks that.
    void awaitDaemonsEnd(int status = 0);
    lab::DaemonProcess& daemon() { return *daemon_; }

    // A session with the daemon, which configures it with these backends.
    std::unique_ptr<BlockingSession> open(const SessionSettings& settings = {},
                                          const std::vector<std::string>& backends = {"httpPost"});
    // That the session reports to this server.
    void expectReport(BlockingSession& session, lab::ReportingServer& server);
    void expectReport(BlockingSession& session) { expectReport(session, reports()); }
    bool waitForEvents(size_t count) { return reports().waitForEvents(count, lab::kPatience); }

    // Expects the whole line, with its level: "<7>..."; waits for it.
    void expectLine(std::string_view line, size_t from = 0);
    void expectLineBeginning(std::string_view beginning, size_t from = 0);

  private:
    lab::TemporaryDirectory directory_;
    std::unique_ptr<lab::Laboratory> laboratory_;
    std::unique_ptr<lab::DaemonProcess> daemon_;
};

}  // namespace telvora::test
