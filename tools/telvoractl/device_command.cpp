// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "device_answer.h"
#include "output.h"

namespace telvora::ctl {

namespace {

int runDevice(const CommonOptions& common) {
    const auto device = describedDevice(common);
    if (!device) return fail(device.error().status, device.error().reason);
    if (common.json) {
        std::puts(toJson(*device).c_str());
        return kDone;
    }
    std::vector<std::vector<std::string>> rows{{"PROPERTY", "VALUE"}};
    for (const auto& [key, value] : *device)
        rows.push_back({key, textOf(value)});
    printTable(rows);
    return kDone;
}

}  // namespace

Command addDeviceCommand(CLI::App& app, const CommonOptions& common) {
    CLI::App* command = app.add_subcommand("device", "Show the device as the daemon sees it");
    command->footer("Asks the daemon, or reads its files if it does not run.");
    return {command, [&common] { return runDevice(common); }};
}

}  // namespace telvora::ctl
