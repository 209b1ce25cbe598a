// SPDX-License-Identifier: Apache-2.0
//
// Sends the daemon's accounts as an ordinary report, so that a server can compute the losses of its fleet.
#include <CLI/CLI.hpp>
#include <cmath>

#include "protocol/status_keys.h"
#include "send_command.h"
#include "status_reader.h"

namespace telvora::ctl {

namespace {

struct HealthOptions {
    SessionOptions session;
    ReportOptions report;
    bool confirm = false;
};

// Events are flat: {"lost": {"noAnswer": 3}} of the prefix "httpPost" becomes "httpPost.lost.noAnswer". A
// number that is absent is 0.
void addFlat(Dictionary& payload, const std::string& prefix, const Dictionary& values) {
    for (const auto& [key, value] : values) {
        const std::string name = prefix + "." + key;
        if (const auto* inner = value.getIf<Dictionary>()) {
            addFlat(payload, name, *inner);
        } else if (value.integerValue().value_or(0) != 0) {
            payload.set(name, value);
        }
    }
}

// The accounts of all runs. Their begin is rounded down to a day: a precise time would identify the device.
Dictionary payloadOf(const Dictionary& status) {
    constexpr double kDay = 86400;
    const Dictionary sums = sumsOfAllRuns(status);
    Dictionary payload{{status::kVersion, text(dictionaryIn(status, status::kDaemon), status::kVersion)}};
    if (const auto* since = sums.find(status::kSince)->getIf<Date>())
        payload.set(status::kSince, std::llround(std::floor(since->seconds / kDay) * kDay));
    addFlat(payload, "reports", dictionaryIn(sums, status::kClientTypes));
    return payload;
}

int sendHealth(const HealthOptions& options, const CommonOptions& common) {
    const auto status = awaitStatus(common);
    if (!status) return fail(status.error().status, status.error().reason);
    return sendOne(options.session, options.report, payloadOf(*status), options.confirm, common);
}

}  // namespace

Command addSendHealthCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<HealthOptions>();
    CLI::App* command =
        app.add_subcommand("send-health", "Send the daemon's accounts of reports and losses as a report");
    command->footer("For root, the daemon's user and the group telvora-admin.");
    addSessionOptions(*command, options->session);
    addCategoryAndType(*command, options->report);
    addConfirmOption(*command, options->confirm);
    return {command, [options, &common] { return sendHealth(*options, common); }};
}

}  // namespace telvora::ctl
