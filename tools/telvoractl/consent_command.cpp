// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "config/device_description.h"
#include "device_answer.h"
#include "output.h"
#include "settings.h"

namespace telvora::ctl {

namespace {

int runConsent(const std::string& setting, const CommonOptions& common) {
    if (setting != "show") {
        auto settings = Settings::open();
        if (!settings) return fail(kNotDone, settings.error());
        return settings->write(std::string(kConsentDomain), std::string(kConsentKey), setting == "on");
    }
    const auto device = describedDevice(common);
    if (!device) return fail(device.error().status, device.error().reason);
    const bool given = device->boolean(device::kConsent);
    std::puts(common.json ? (given ? "{\"consent\":true}" : "{\"consent\":false}")
                          : (given ? "consent: on" : "consent: off"));
    return kDone;
}

}  // namespace

Command addConsentCommand(CLI::App& app, const CommonOptions& common) {
    const auto setting = std::make_shared<std::string>();
    CLI::App* command =
        app.add_subcommand("consent", "Show or set the user's consent to sharing diagnostics");
    command->add_option("setting", *setting, "on, off or show")
        ->required()
        ->check(CLI::IsMember({"on", "off", "show"}));
    command->footer(
        "Without consent, only reports for which the bag needs no consent leave the device. A change\n"
        "affects sessions that are opened later.");
    return {command, [setting, &common] { return runConsent(*setting, common); }};
}

}  // namespace telvora::ctl
