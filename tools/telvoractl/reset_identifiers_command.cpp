// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <set>

#include "config/device_identity.h"
#include "diagnosis/last_totals.h"
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
    auto settings = Settings::openReadable();
    if (!settings) return fail(kNotDone, settings.error());
    // Earlier versions kept them among the settings, where the administrator may still set one.
    std::map<std::string, std::vector<std::string>> keysByDomain;
    std::set<std::string> keys;
    for (const std::string_view domain : {kIdentifiersDomain, kTelvoraDefaultsDomain}) {
        const UserDefaults::Files files = settings->defaults().files(domain);
        Dictionary all = files.own;
        all.merge(files.administrator);  // to report identifiers that stay there
        for (const auto& [key, value] : all) {
            if (!DeviceIdentity::isIdentifierKey(key)) continue;
            keysByDomain[std::string(domain)].push_back(key);
            keys.insert(key);
        }
    }
    if (!keys.empty() && !yes && isatty(STDIN_FILENO) != 0 && !isConfirmed(keys.size())) {
        return fail(kNotDone, "no identifier was deleted");
    }
    for (const auto& [domain, ofDomain] : keysByDomain) {
        const int status = settings->remove(domain, ofDomain);
        if (status != kDone) return status;
    }
    // Servers that get the sums could tell by them that it is the same device.
    if (const auto removed = removeLastTotals(settings->directories().state); !removed)
        return fail(kNotDone, removed.error());
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
