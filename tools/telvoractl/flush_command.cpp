// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "session_run.h"

namespace telvora::ctl {

namespace {

int runFlush(const SessionOptions& options, const CommonOptions& common) {
    SessionRun session(options, Printer(common.json));
    const int status = session.open(common);
    return status == kDone ? session.flush() : status;
}

}  // namespace

Command addFlushCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<SessionOptions>();
    CLI::App* command = app.add_subcommand("flush", "Open a session and flush it");
    command->footer(
        "Checks whether the client type's reports reach their server: with --batch, the start message waits\n"
        "for the flush, and the answer is the server's. Batches of other sessions are not posted.");
    addSessionOptions(*command, *options);
    return {command, [options, &common] { return runFlush(*options, common); }};
}

}  // namespace telvora::ctl
