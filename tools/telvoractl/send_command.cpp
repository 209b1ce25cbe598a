// SPDX-License-Identifier: Apache-2.0
#include "send_command.h"

#include <CLI/CLI.hpp>

#include "session_run.h"
#include "telvora/keys.h"
#include "verdict.h"

namespace telvora::ctl {

namespace {

struct SendOptions {
    SessionOptions session;
    ReportOptions report;
    bool confirm = false;
};

}  // namespace

int sendOne(const SessionOptions& options, const ReportOptions& report, std::optional<Dictionary> payload,
            bool confirm, const CommonOptions& common) {
    Dictionary message{{kTelvoraMessageParametersCategory, report.category},
                       {kTelvoraMessageParametersType, report.type}};
    if (payload) message.set(kTelvoraMessageParametersPayload, std::move(*payload));

    const Printer print(common.json);
    SessionRun session(options, print);
    int status = session.open(common);
    if (status != kDone) return status;
    Verdict verdict(common, options.sessionID, options.timeout);
    if (confirm) verdict.begin();
    status = session.send(message);
    if (status == kDone) status = session.wait();
    if (status == kDone) status = session.flush();
    if (confirm && status == kDone) status = verdict.await(print);
    if (!confirm && status == kDone && !session.wasAnswered()) {
        std::fprintf(stderr, "telvoractl: the daemon posted no report%s\n",
                     whyWithoutBag(options.clientType).c_str());
    }
    if (status != kDone && status != kNotDone) return status;
    const int finished = session.finish();
    return status != kDone ? status : finished;
}

void addConfirmOption(CLI::App& command, bool& confirm) {
    command.add_flag(
        "--confirm", confirm,
        "Wait for the server's answer, and fail unless it is 2xx. Allowed for root, the daemon's "
        "user and the group telvora-admin");
}

Command addSendCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<SendOptions>();
    CLI::App* command = app.add_subcommand("send", "Open a session, send one report, flush and finish");
    addSessionOptions(*command, options->session);
    addReportOptions(*command, options->report);
    addConfirmOption(*command, options->confirm);
    return {command, [options, &common] {
                auto payload = options->report.payloadOrNothing();
                if (!payload) return fail(kBadInput, payload.error());
                return sendOne(options->session, options->report, std::move(*payload), options->confirm,
                               common);
            }};
}

}  // namespace telvora::ctl
