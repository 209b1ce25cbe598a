// SPDX-License-Identifier: Apache-2.0
//
// The interface between main.cpp and the file of each command, and helpers of all commands.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace telvora::ctl {

// Exit statuses. --help and telvoractl(1) list them.
enum Status : int {
    kDone = 0,
    kNotDone = 1,   // the daemon has no configuration for the client, or refused; a setting has no effect
    kBadInput = 2,  // command line, standard input, or a file that it names
    kDaemonMissing = 3,  // unreachable, or the connection was lost
    kNoAnswer = 4,       // no answer within the given time
};

// The options of all commands. Valid only after the command line has been parsed.
struct CommonOptions {
    std::string socketPath;  // empty: not given
    bool json = false;
    double wait = 0;  // seconds to wait for the daemon to start

    // The path of the daemon's socket.
    std::string socket() const;
};

// A subcommand, and its function, which runs after the command line has been parsed and returns a Status.
struct Command {
    CLI::App* app;
    std::function<int()> run;
};

// Each adds its command to `app`. `common` must outlive the returned commands.
Command addConsentCommand(CLI::App& app, const CommonOptions& common);
Command addDashboardSendCommand(CLI::App& app, const CommonOptions& common);
Command addDefaultsCommand(CLI::App& app, const CommonOptions& common);
Command addDeviceCommand(CLI::App& app, const CommonOptions& common);
Command addDoctorCommand(CLI::App& app, const CommonOptions& common);
Command addFlushCommand(CLI::App& app, const CommonOptions& common);
Command addLogCommand(CLI::App& app, const CommonOptions& common);
Command addOneshotCommand(CLI::App& app, const CommonOptions& common);
Command addRefreshCommand(CLI::App& app, const CommonOptions& common);
Command addResetIdentifiersCommand(CLI::App& app, const CommonOptions& common);
Command addSendCommand(CLI::App& app, const CommonOptions& common);
Command addSendHealthCommand(CLI::App& app, const CommonOptions& common);
Command addSessionCommand(CLI::App& app, const CommonOptions& common);
Command addStatusCommand(CLI::App& app, const CommonOptions& common);
Command addTailCommand(CLI::App& app, const CommonOptions& common);
Command addUploadCommand(CLI::App& app, const CommonOptions& common);

// Prints "telvoractl: problem" to standard error and returns the status.
int fail(Status status, const std::string& problem);

// Also prints the libraries' log lines of level 4 (warning) and more severe to standard error.
void logToStandardError();

}  // namespace telvora::ctl
