// SPDX-License-Identifier: Apache-2.0
//
// telvoractl: the command-line client of telvorad. Each command has its own file.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <vector>

#include "client/client_session.h"
#include "command.h"
#include "completion/program.h"
#include "util/log.h"
#include "util/utf8.h"

namespace telvora::ctl {

namespace {

constexpr char kFooter[] =
    "Exit status:\n"
    "  0  done\n"
    "  1  not done: the daemon has no configuration for the client type, or refused; a report was not\n"
    "     delivered; a bag could not be fetched; the caller may not read the settings; a setting that was\n"
    "     written has no effect, or one to delete is absent; or standard output can't be written\n"
    "  2  the command line or the input is wrong\n"
    "  3  the daemon can't be reached, or the connection was lost\n"
    "  4  the daemon did not answer in time\n"
    "See telvoractl(1).";

// In the order of --help.
constexpr Command (*kCommands[])(CLI::App&, const CommonOptions&) = {
    addStatusCommand,  addDoctorCommand,           addTailCommand,       addSendCommand,
    addSessionCommand, addOneshotCommand,          addFlushCommand,      addUploadCommand,
    addLogCommand,     addConsentCommand,          addDefaultsCommand,   addDeviceCommand,
    addRefreshCommand, addResetIdentifiersCommand, addSendHealthCommand, addDashboardSendCommand,
};

int run(int argc, char** argv) {
    CommonOptions common;
    CLI::App app("Looks after telvorad, and reports to it, from the command line.", "telvoractl");
    app.footer(kFooter);
    app.require_subcommand(1);
    app.fallthrough();  // the common options are accepted after the command, too
    app.add_option("--socket", common.socketPath,
                   "The daemon's socket; default $TELVORA_SOCKET, else com.zandor.telvorad in "
                   "$RUNTIME_DIRECTORY or /run/telvora");
    app.add_option("--wait", common.wait, "Seconds to wait for the daemon to listen")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    app.add_flag("--json", common.json, "Print JSON instead of text");
    std::vector<Command> commands;
    for (const auto& add : kCommands)
        commands.push_back(add(app, common));
    if (const auto status = parseCommandLine(app, argc, argv, kBadInput)) return *status;
    int status = kBadInput;
    for (const Command& command : commands) {
        if (command.app->parsed()) status = command.run();
    }
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    return status == kDone ? fail(kNotDone, "standard output can't be written") : status;
}

void printLogLine(int /*level*/, std::string_view line) {
    std::fprintf(stderr, "telvoractl: %.*s\n", static_cast<int>(line.size()), line.data());
}

}  // namespace

std::string CommonOptions::socket() const {
    return socketPath.empty() ? ClientSession::defaultSocketPath() : socketPath;
}

int fail(Status status, const std::string& problem) {
    std::fprintf(stderr, "telvoractl: %s\n", escapeControlCharacters(problem).c_str());
    return status;
}

void logToStandardError() {
    setLogThreshold(kLogWarning);
    setLogSink(printLogLine);
}

}  // namespace telvora::ctl

int main(int argc, char** argv) {
    try {
        std::ios::sync_with_stdio(false);
        return telvora::ctl::run(argc, argv);
    } catch (const std::exception& error) {
        return telvora::ctl::fail(telvora::ctl::kBadInput, error.what());
    }
}
