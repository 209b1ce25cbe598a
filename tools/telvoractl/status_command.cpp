// SPDX-License-Identifier: Apache-2.0
//
// The daemon's status for administrators: as JSON unchanged, or as tables.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <thread>

#include "open_metrics.h"
#include "output.h"
#include "status_reader.h"
#include "status_tables.h"
#include "util/atomic_file.h"

namespace telvora::ctl {

namespace {

struct Options {
    double watch = 0;  // seconds between two outputs
    bool openMetrics = false;
    std::string output;  // a file; empty: standard output
};

// Everyone may read the file: a collector of metrics is another user.
int writeTo(const std::string& path, const std::string& text) {
    const auto written = replaceFile(path, text, {.mode = 0644});
    return written ? kDone : fail(kBadInput, path + ": " + written.error());
}

int printOnce(const CommonOptions& common, const Options& options) {
    const auto status = awaitStatus(common);
    if (!status) return fail(status.error().status, status.error().reason);
    if (!options.output.empty()) return writeTo(options.output, openMetrics(*status));
    if (options.openMetrics) {
        std::fputs(openMetrics(*status).c_str(), stdout);
        std::fflush(stdout);
    } else if (common.json) {
        std::puts(toJson(*status).c_str());
        std::fflush(stdout);
    } else {
        printStatus(*status);
    }
    return kDone;
}

// Until the caller interrupts it, also while the daemon is away.
int watch(const CommonOptions& common, const Options& options) {
    const bool inPlace = isatty(STDOUT_FILENO) != 0 && !common.json;
    for (;;) {
        if (inPlace) std::fputs("\033[H\033[2J", stdout);
        const int status = printOnce(common, options);
        if (status == kNotDone) return status;
        if (!inPlace && !common.json) std::puts("");
        std::fflush(stdout);
        if (std::ferror(stdout) != 0) return kDone;
        std::this_thread::sleep_for(std::chrono::duration<double>(options.watch));
    }
}

}  // namespace

Command addStatusCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "status", "Show sessions, reports and their losses with reasons, users, bags, servers, sandbox");
    CLI::Option* watched =
        command->add_option("--watch", options->watch, "Refresh in place, every so many seconds; default: 2")
            ->expected(0, 1)
            ->default_str("2")
            ->check(CLI::Range(0.1, 86400.0));
    CLI::Option* metrics = command
                               ->add_flag("--openmetrics", options->openMetrics,
                                          "Print the numbers as OpenMetrics, also for Prometheus' "
                                          "node_exporter")
                               ->excludes(watched);
    command->add_option("--output", options->output, "Replace this file atomically instead of printing")
        ->needs(metrics);
    command->footer("For root, the daemon's user and the group telvora-admin.");
    return {command, [command, options, &common] {
                return command->count("--watch") > 0 ? watch(common, *options) : printOnce(common, *options);
            }};
}

}  // namespace telvora::ctl
