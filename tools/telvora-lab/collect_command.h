// SPDX-License-Identifier: Apache-2.0
//
// "telvora-lab collect": the dashboard's collector alone.
#pragma once

#include <CLI/CLI.hpp>

#include "telvora-lab/dashboard_collector.h"

namespace telvora::lab {

struct CollectArguments {
    CollectorOptions collector;
    bool quiet = false;
    bool ignoreInput = false;
};

// The options for the faults of the network between the senders and the collector.
void addNetworkOptions(CLI::App& command, CollectorOptions& options);

// Adds the subcommand.
CLI::App* addCollectCommand(CLI::App& app, CollectArguments& arguments);

// Runs until SIGTERM, SIGINT or the end of input. Returns the program's exit status.
int collect(const CollectArguments& arguments);

}  // namespace telvora::lab
