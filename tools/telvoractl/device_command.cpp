// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "config/client_framework.h"
#include "config/environment.h"
#include "json.h"
#include "output.h"
#include "platform/locale.h"
#include "settings.h"

namespace telvora::ctl {

namespace {

int runDevice(const CommonOptions& common) {
    auto settings = Settings::open();
    if (!settings) return fail(kNotDone, settings.error());
    const DeviceProperties properties(settings->directories().configuration);
    const DeviceIdentity identity(properties, settings->defaults());
    const Environment environment(settings->defaults(), identity);
    const ClientFramework framework(settings->directories().framework);

    Dictionary all = properties.all();
    all.set("internalBuild", identity.isInternal());
    all.set("consent", identity.diagnosticsConsent());
    all.set("environment", sectionNameForEnvironment(environment.userDefaultsEnvironment()).value_or("none"));
    all.set("bagServer", environment.storebagBaseURL());
    all.set("frameworkVersion", framework.bundleVersion());
    if (const auto country = currentCountryCode()) all.set("countryCode", *country);
    if (common.json) {
        std::puts(toJson(all).c_str());
        return kDone;
    }
    std::vector<std::vector<std::string>> rows{{"PROPERTY", "VALUE"}};
    for (const auto& [key, value] : all)
        rows.push_back({key, textOf(value)});
    printTable(rows);
    return kDone;
}

}  // namespace

Command addDeviceCommand(CLI::App& app, const CommonOptions& common) {
    CLI::App* command = app.add_subcommand("device", "Show the device as the daemon sees it");
    return {command, [&common] { return runDevice(common); }};
}

}  // namespace telvora::ctl
