// SPDX-License-Identifier: Apache-2.0
//
// telvora-demo: sends reports from clients to a reporting server through the real daemon. Exits with status 0
// if each expected report arrived exactly once, with the expected fields, and no other report arrived.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "audit.h"
#include "call.h"
#include "completion/program.h"
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

void play(ClientRuntime& runtime, const std::string& socketPath) {
    const std::vector<Report> reports = reportsOf("player");
    DemoSession session(runtime, socketPath, 1, "player", true);
    session.sendAll(reports, kFirstOwn, reports.size() - kLastOfDaemon);
    session.flush();
    session.finishAndClose();
}

void browse(ClientRuntime& runtime, const std::string& socketPath) {
    const std::vector<Report> reports = reportsOf("browser");
    DemoSession session(runtime, socketPath, 2, "browser", false);
    session.sendAll(reports, kFirstOwn, kFirstOwn + 1);
    say("  browser flushes while it is sampled out: \"{}\"\n", session.flush());
    session.sendAll(reports, kFirstOwn + 1, reports.size() - kLastOfDaemon);
    session.finishAndClose();
}

// Uploads a client's file. It must reach the upload server unchanged and then be removed. Returns the faults.
std::vector<std::string> upload(ClientRuntime& runtime, const std::string& socketPath,
                                const std::filesystem::path& file, const lab::UploadServer& server) {
    std::string content(300'000, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * i >> 8);
    std::ofstream(file, std::ios::binary) << content;

    DemoSession session(runtime, socketPath, 6, "uploader", true);
    const bool uploaded = session.upload(file);
    const bool arrived = server.uploadCount() == 1 && server.uploads().front().body == content;
    const bool vanished = !std::filesystem::exists(file);
    say("5. A file of {} bytes: {}, {} at {}, {} from the disk\n", content.size(),
        uploaded ? "uploaded" : "NOT uploaded", arrived ? "arrived byte for byte" : "NOT arrived",
        server.uploadURL(), vanished ? "removed" : "NOT removed");
    if (uploaded && arrived && vanished) return {};
    return {"the upload of " + file.string()};
}

int report(const std::vector<Report>& reports, const lab::ReportingServer& server,
           std::vector<std::string> wrong) {
    for (std::string& problem : server.problems())
        wrong.push_back(std::move(problem));
    for (std::string& problem : placesInCall(server.events()))
        wrong.push_back(std::move(problem));
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

    const std::filesystem::path spool = directory.path() / "spool";  // the daemon may remove files here
    std::filesystem::create_directory(spool);
    test::DaemonOptions options{directory.path(), **laboratory};
    options.defaults.set("uploadDirectories", Array{spool.string()});
    test::DaemonProcess daemon(options);
    if (!daemon.waitUntilListening()) {
        for (const std::string& line : daemon.logLines())
            say("{}\n", line);
        return 1;
    }
    say("3. The daemon, process {}, confined, listens at {}\n", daemon.pid(), daemon.socketPath());
    say("4. Two sessions through the client library, then a call: a session with two below it\n");
    std::vector<std::string> wrong;
    {
        Call call;  // outlives the runtime, whose thread calls it
        ClientRuntime runtime;
        play(runtime, daemon.socketPath());
        browse(runtime, daemon.socketPath());
        wrong = call.hold(runtime, daemon.socketPath());
        for (std::string& problem :
             upload(runtime, daemon.socketPath(), spool / "trace.log", (*laboratory)->uploads()))
            wrong.push_back(std::move(problem));
    }

    std::vector<Report> reports;
    for (const char* client : {"player", "browser", "call", "audio", "video"}) {
        for (Report& more : reportsOf(client))
            reports.push_back(std::move(more));
    }
    size_t expected = 0;
    for (const Report& each : reports)
        expected += each.path.empty() ? 0 : 1;
    server.waitForEvents(expected, test::kPatience);
    const auto status = daemon.stop();  // no event can arrive later
    say("6. The daemon has ended with status {}\n", status.value_or(-1));
    const int result = report(reports, server, std::move(wrong));
    return status == 0 ? result : 1;
}

}  // namespace
}  // namespace telvora::demo

int main(int argc, char** argv) {
    if (telvora::printVersion("telvora-demo", argc, argv)) return 0;
    try {
        return telvora::demo::run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "telvora-demo: %s\n", error.what());
        return 1;
    }
}
