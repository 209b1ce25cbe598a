// SPDX-License-Identifier: Apache-2.0
//
// "telvora-lab serve": the laboratory's servers and its page.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>
#include <vector>

#include "telvora-lab/laboratory.h"

namespace telvora::lab {

struct ServeArguments {
    std::string directory;
    bool keep = false;
    std::string listen = "127.0.0.1";
    int port = 0;
    std::vector<std::string> bags;
    std::string signedBags;
    std::string environmentFile;
    std::vector<std::string> bagFaults;
    std::string reportingFault = "none";
    std::string logDataFault = "none";
    std::string uploadAnswer = "success";
    std::string countByKey;
    size_t keptEvents = 100'000;
    CollectorOptions collector;
    bool follow = false;
    bool json = false;
    bool ignoreInput = false;
};

// Adds the subcommand.
CLI::App* addServeCommand(CLI::App& app, ServeArguments& arguments);

// Runs until SIGTERM, SIGINT or the end of input. Returns the program's exit status.
int serve(const ServeArguments& arguments);

}  // namespace telvora::lab
