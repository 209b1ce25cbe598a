// SPDX-License-Identifier: Apache-2.0
//
// telvora-demo: the way of a report from a client to the reporting server, with real parts. Exits with status
// 0 if each report that must arrive did so exactly once, with the fields that it must have, and nothing else
// arrived.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "audit.h"
#include "demo_session.h"
#include "script.h"
#include "telvora-lab/laboratory.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temporary_directory.h"

namespace telvora::demo {
namespace {

template <typename... Arguments>
void say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::print(format, std::forward<Arguments>(arguments)...);
    std::fflush(stdout);
}

void sendAll(DemoSession& session, const std::vector<Report>& reports, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
        session.send(reports[i].category, reports[i].type, reports[i].payload, reports[i].flag);
    }
}

// The reports that the client itself makes stand between the daemon's start message and its finish and end
// messages.
constexpr size_t kFirst = 1;
constexpr size_t kDaemonsLast = 2;

void play(ClientRuntime& runtime, const std::string& socketPath) {
    const std::vector<Report> reports = reportsOf("player");
    DemoSession session(runtime, socketPath, 1, "player", true);
    sendAll(session, reports, kFirst, reports.size() - kDaemonsLast);
    session.flush();
    session.finishAndClose();
}

void browse(ClientRuntime& runtime, const std::string& socketPath) {
    const std::vector<Report> reports = reportsOf("browser");
    DemoSession session(runtime, socketPath, 2, "browser", false);
    sendAll(session, reports, kFirst, kFirst + 1);
    say("  browser flushes while it is sampled out: \"{}\"\n", session.flush());
    sendAll(session, reports, kFirst + 1, reports.size() - kDaemonsLast);
    session.finishAndClose();
}

int report(const std::vector<Report>& reports, const lab::ReportingServer& server) {
    std::vector<std::string> wrong = server.problems();
    const auto messages = server.messages();
    const std::vector<Finding> findings = audit(reports, messages, wrong);
    say("\n{}\n", table(findings));
    for (const Finding& finding : findings) {
        if (!finding.fault.empty()) wrong.push_back(finding.report->manner + " " + finding.fault);
    }
    for (const std::string& line : wrong)
        say("WRONG: {}\n", line);
    say("{} events in {} messages; {}\n", server.eventCount(), messages.size(),
        wrong.empty() ? "each as it must be, and each once" : "NOT as it must be");
    return wrong.empty() ? 0 : 1;
}

int run() {
    test::TemporaryDirectory directory;
    auto laboratory = lab::Laboratory::make(directory.path() / "lab");
    if (!laboratory) {
        say("{}\n", laboratory.error());
        return 1;
    }
    lab::ReportingServer& server = (*laboratory)->reports();
    say("1. Keys: a certificate authority, a server certificate, a key for signing bags\n   {}\n",
        (*laboratory)->pki().caFile());
    (*laboratory)->setBag("dravik", demoBag());
    say("2. Servers: a signed bag at {}/dravik\n   reports go to {} and {}\n",
        (*laboratory)->bags().baseURL(), server.eventsURL(), server.realtimeURL());

    test::DaemonProcess daemon(test::DaemonOptions::forLaboratory(directory.path(), (*laboratory)->pki(),
                                                                  (*laboratory)->bags().baseURL()));
    if (!daemon.waitUntilListening()) {
        for (const std::string& line : daemon.logLines())
            say("{}\n", line);
        return 1;
    }
    say("3. The daemon, process {}, confined, listens at {}\n", daemon.pid(), daemon.socketPath());
    say("4. Two sessions through the client library\n");
    {
        ClientRuntime runtime;
        play(runtime, daemon.socketPath());
        browse(runtime, daemon.socketPath());
    }

    std::vector<Report> reports = reportsOf("player");
    for (Report& more : reportsOf("browser"))
        reports.push_back(std::move(more));
    size_t expected = 0;
    for (const Report& each : reports)
        expected += each.path.empty() ? 0 : 1;
    server.waitForEvents(expected, test::kPatience);
    const auto status = daemon.stop();  // by then nothing more can arrive
    say("5. The daemon has ended with status {}\n", status.value_or(-1));
    const int result = report(reports, server);
    return status == 0 ? result : 1;
}

}  // namespace
}  // namespace telvora::demo

int main() {
    try {
        return telvora::demo::run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "telvora-demo: %s\n", error.what());
        return 1;
    }
}
