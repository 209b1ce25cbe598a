// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "config/device_identity.h"
#include "settings.h"

namespace telvora::ctl {

namespace {

bool isConfirmed(size_t count) {
    std::cout << "Delete " << count << " identifiers? Servers will take this device for another one. [y/N] "
              << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "yes");
}

int runReset(bool yes, const CommonOptions& common) {
    auto settings = Settings::open();
    if (!settings) return fail(kNotDone, settings.error());
    const std::string domain(kTelvoraDefaultsDomain);
    const UserDefaults::Files files = settings->defaults().files(domain);
    std::vector<std::string> keys;
    Dictionary all = files.own;
    all.merge(files.administrator);  // to report identifiers that stay there
    for (const auto& [key, value] : all) {
        if (DeviceIdentity::isIdentifierKey(key)) keys.push_back(key);
    }
    if (!keys.empty() && !yes && isatty(STDIN_FILENO) != 0 && !isConfirmed(keys.size())) {
        return fail(kNotDone, "no identifier was deleted");
    }
    const int status = settings->remove(domain, keys);
    if (status != kDone) return status;
    const std::string count = std::to_string(keys.size());
    std::puts((common.json ? "{\"deleted\":" + count + "}" : "deleted: " + count).c_str());
    return kDone;
}

}  // namespace

Command addResetIdentifiersCommand(CLI::App& app, const CommonOptions& common) {
    const auto yes = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand("reset-identifiers",
                                           "Delete the identifiers under which servers know this device");
    command->add_flag("--yes,-y", *yes, "Do not ask, even on a terminal");
    command->footer("New random ones are made when needed. Open sessions keep the old ones.");
    return {command, [yes, &common] { return runReset(*yes, common); }};
}

}  // namespace telvora::ctl
