// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "config/device_identity.h"
#include "output.h"
#include "settings.h"

namespace telvora::ctl {

namespace {

int runConsent(const std::string& what, const CommonOptions& common) {
    auto settings = Settings::open();
    if (!settings) return fail(kNotDone, settings.error());
    if (what != "show") {
        return settings->write(std::string(kConsentDomain), std::string(kConsentKey), what == "on");
    }
    const bool given = settings->defaults().boolean(kConsentDomain, kConsentKey);
    std::puts(common.json ? (given ? "{\"consent\":true}" : "{\"consent\":false}")
                          : (given ? "consent: on" : "consent: off"));
    return kDone;
}

}  // namespace

Command addConsentCommand(CLI::App& app, const CommonOptions& common) {
    const auto what = std::make_shared<std::string>();
    CLI::App* command =
        app.add_subcommand("consent", "Show or set the user's consent to sharing diagnostics");
    command->add_option("what", *what, "on, off or show")
        ->required()
        ->check(CLI::IsMember({"on", "off", "show"}));
    command->footer(
        "Without consent, only what a bag sends without it leaves the device. Holds for sessions that\n"
        "are opened from now on.");
    return {command, [what, &common] { return runConsent(*what, common); }};
}

}  // namespace telvora::ctl
