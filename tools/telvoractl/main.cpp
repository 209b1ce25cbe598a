// SPDX-License-Identifier: Apache-2.0
//
// telvoractl: reports to telvorad from the command line.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "client/client_session.h"
#include "commands.h"

namespace telvora::ctl {

namespace {

constexpr char kFooter[] =
    "Exit status:\n"
    "  0  done\n"
    "  1  the daemon has no configuration for the client type, or refused a call\n"
    "  2  a mistake on the command line or in the input\n"
    "  3  the daemon can't be reached, or the connection was lost\n"
    "  4  the daemon did not answer in time";

constexpr char kSessionHelp[] =
    "Run a session. Each line of standard input is one report:\n"
    "  {\"category\":1,\"type\":2,\"payload\":{\"key\":\"value\"},\"flag\":0}\n"
    "payload and flag may be left out; flag 1 sends at once, 2 promotes. At the end of the input the "
    "session\n"
    "is flushed and finished. Each answer is printed as one JSON line, null for nothing.";

constexpr char kSendHelp[] =
    "Send one report without a session. Prints {\"outcome\":\"finished\"} when the backends have it.";

constexpr char kDashboardHelp[] =
    "Send reports to a dashboard's collector from this process, without the daemon, whose sessions never "
    "send\nthere. Prints each as the line {\"sent\":\"...\"}; ends when all are acknowledged or given up.";

void addReportOptions(CLI::App& command, ReportOptions& report) {
    command.add_option("--category", report.category, "Category, 0 to 65535")->required();
    command.add_option("--type", report.type, "Type, 0 to 65535")->required();
    command.add_option("--payload", report.payload,
                       "KEY=TEXT for a string, KEY:=JSON for any other value (repeatable)");
    command.add_option("--payload-json", report.payloadJson,
                       "A JSON object; --payload entries replace its own");
}

void addDashboardOptions(CLI::App& command, DashboardOptions& options) {
    command.add_option("--collector", options.collector, "ADDRESS:PORT, IPv4")->required();
    command.add_option("--period", options.period,
                       "Configure as a bag with this \"reliable\" does: milliseconds of the retransmission "
                       "timer; without, as no bag does: 500 ms");
    command.add_flag("--unreliable", options.unreliable, "Configure as a bag without \"reliable\" does")
        ->excludes("--period");
    command.add_option("--component", options.componentType, "Component type")->capture_default_str();
    command.add_option("--session-id", options.sessionID, "Session ID")->capture_default_str();
    command.add_option("--client-version", options.clientVersion, "Client version")->capture_default_str();
    command.add_option("--framework-version", options.selfVersion, "Version of the reporting framework")
        ->capture_default_str();
    command.add_option("--device", options.deviceID,
                       "Device identifier, of which 40 characters count; default: this device's");
    command.add_option("--first-number", options.firstEventNumber, "Event number of the first report")
        ->capture_default_str();
    command.add_option("--count", options.count, "How many reports")->capture_default_str();
    command.add_option("--interval", options.interval, "Milliseconds from one to the next")
        ->capture_default_str();
}

void addSessionOptions(CLI::App& command, SessionOptions& options) {
    const CLI::Range unsigned32(int64_t{0}, int64_t{std::numeric_limits<uint32_t>::max()});
    command.add_option("--client-type", options.clientType, "Client type: selects the configuration")
        ->required()
        ->check(unsigned32);
    command.add_option("--session-id", options.sessionID, "Session ID")->required()->check(unsigned32);
    command.add_option("--client-version", options.clientVersion, "Client version")
        ->check(CLI::Range(0, 65535));
    command.add_option("--client-name", options.clientName, "Client name, part of the user info");
    command.add_option("--service-name", options.serviceName, "Service name, part of the user info");
    command.add_flag("--require-user-info", options.requireUserInfo, "Promise user info");
    command.add_flag("--batch", options.batch, "Batch events");
    command.add_option("--hierarchy-token", options.hierarchyToken, "Token that correlates sessions");
    command.add_option("--hierarchy-level", options.hierarchyLevel, "Level in the hierarchy, 0 at the top")
        ->needs("--hierarchy-token")
        ->check(unsigned32);
    command.add_option("--timeout", options.timeout, "Seconds to wait for an answer")
        ->default_val(120)
        ->check(CLI::PositiveNumber);
}

int run(int argc, char** argv) {
    SessionOptions options;
    ReportOptions report;
    CLI::App app("Reports to telvorad from the command line.", "telvoractl");
    app.footer(kFooter);
    app.require_subcommand(1);
    app.add_option(
        "--socket", options.socketPath,
        "The daemon's socket; default $TELVORA_SOCKET, else com.zandor.telvorad in $RUNTIME_DIRECTORY "
        "or /run/telvora");

    CLI::App* session = app.add_subcommand("session", kSessionHelp);
    addSessionOptions(*session, options);
    session->add_option("--framework", options.frameworks, "Framework to check (repeatable)");
    session->add_flag("--aggregate", options.aggregate, "Ask for the session's messages and print them");

    CLI::App* send = app.add_subcommand("send", kSendHelp);
    addSessionOptions(*send, options);
    addReportOptions(*send, report);

    DashboardOptions dashboard;
    CLI::App* dashboardSend = app.add_subcommand("dashboard-send", kDashboardHelp);
    addDashboardOptions(*dashboardSend, dashboard);
    addReportOptions(*dashboardSend, report);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kBadInput;
    }
    if (dashboardSend->parsed()) return runDashboardSend(dashboard, report);
    if (options.socketPath.empty()) options.socketPath = ClientSession::defaultSocketPath();
    return session->parsed() ? runSession(options, std::cin) : runSend(options, report);
}

}  // namespace

}  // namespace telvora::ctl

int main(int argc, char** argv) {
    try {
        std::ios::sync_with_stdio(false);
        return telvora::ctl::run(argc, argv);
    } catch (const std::exception& error) {
        return telvora::ctl::fail(telvora::ctl::kBadInput, error.what());
    }
}
