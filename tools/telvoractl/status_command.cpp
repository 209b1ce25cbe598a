// SPDX-License-Identifier: Apache-2.0
//
// The daemon's status for administrators: as JSON unchanged, or as tables.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <thread>

#include "client/status_query.h"
#include "output.h"
#include "session_options.h"
#include "status_tables.h"

namespace telvora::ctl {

namespace {

using Kind = BusQueryFailure::Kind;

int printOnce(const CommonOptions& common) {
    tl::expected<Dictionary, BusQueryFailure> status;
    awaitDaemon(common, [&] {
        status = queryStatus(kGetStatus, statusSocketBeside(common.socket()));
        return status || status.error().kind != Kind::kUnreachable;
    });
    if (!status) {
        const Kind kind = status.error().kind;
        return fail(kind == Kind::kRefused    ? kNotDone
                    : kind == Kind::kNoAnswer ? kNoAnswer
                                              : kDaemonMissing,
                    status.error().message);
    }
    if (common.json) {
        std::puts(toJson(*status).c_str());
        std::fflush(stdout);
    } else {
        printStatus(*status);
    }
    return kDone;
}

// Until the caller interrupts it, also while the daemon is away.
int watch(const CommonOptions& common, double period) {
    const bool inPlace = isatty(STDOUT_FILENO) != 0 && !common.json;
    for (;;) {
        if (inPlace) std::fputs("\033[H\033[2J", stdout);
        const int status = printOnce(common);
        if (status == kNotDone) return status;
        if (!inPlace && !common.json) std::puts("");
        std::fflush(stdout);
        if (std::ferror(stdout) != 0) return kDone;
        std::this_thread::sleep_for(std::chrono::duration<double>(period));
    }
}

}  // namespace

Command addStatusCommand(CLI::App& app, const CommonOptions& common) {
    const auto period = std::make_shared<double>(0);
    CLI::App* command = app.add_subcommand(
        "status", "Show sessions, reports and their losses with reasons, users, bags, servers, sandbox");
    command->add_option("--watch", *period, "Refresh in place, every so many seconds; default: 2")
        ->expected(0, 1)
        ->default_str("2")
        ->check(CLI::Range(0.1, 86400.0));
    command->footer("For root, the daemon's user and the group telvora-admin.");
    return {command, [command, period, &common] {
                return command->count("--watch") > 0 ? watch(common, *period) : printOnce(common);
            }};
}

}  // namespace telvora::ctl
