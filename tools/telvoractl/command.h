// SPDX-License-Identifier: Apache-2.0
//
// What the file of a command gives to main.cpp, and what all commands share.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace telvora::ctl {

// Exit statuses; --help and telvoractl(1) list them.
enum Status : int {
    kDone = 0,
    kNotDone = 1,   // the daemon has no configuration for the client, or said no; a setting has no effect
    kBadInput = 2,  // command line, standard input, or a file that it names
    kDaemonMissing = 3,  // it can't be reached, or the connection was lost
    kNoAnswer = 4,       // within the time that was given
};

// The options of all commands. They count only once the command line has been read.
struct CommonOptions {
    std::string socketPath;  // empty: not given
    bool json = false;
    double wait = 0;  // seconds for the daemon to come up

    // The path of the daemon's socket.
    std::string socket() const;
};

// A subcommand and what runs it, once the command line has been read; that returns a Status.
struct Command {
    CLI::App* app;
    std::function<int()> run;
};

// Each adds its command to `app`. `common` outlives what they return.
Command addConsentCommand(CLI::App& app, const CommonOptions& common);
Command addDashboardSendCommand(CLI::App& app, const CommonOptions& common);
Command addDefaultsCommand(CLI::App& app, const CommonOptions& common);
Command addDeviceCommand(CLI::App& app, const CommonOptions& common);
Command addFlushCommand(CLI::App& app, const CommonOptions& common);
Command addLogCommand(CLI::App& app, const CommonOptions& common);
Command addOneshotCommand(CLI::App& app, const CommonOptions& common);
Command addResetIdentifiersCommand(CLI::App& app, const CommonOptions& common);
Command addSendCommand(CLI::App& app, const CommonOptions& common);
Command addSessionCommand(CLI::App& app, const CommonOptions& common);
Command addStatusCommand(CLI::App& app, const CommonOptions& common);
Command addUploadCommand(CLI::App& app, const CommonOptions& common);

// Prints "telvoractl: problem" to standard error and returns the status.
int fail(Status status, const std::string& problem);

// Lets the lines of our libraries from level 4 (warning) up go to standard error, too.
void logToStandardError();

}  // namespace telvora::ctl
