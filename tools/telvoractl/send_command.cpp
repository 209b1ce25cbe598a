// SPDX-License-Identifier: Apache-2.0
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

int runSend(const SendOptions& options, const CommonOptions& common) {
    auto payload = options.report.payloadOrNothing();
    if (!payload) return fail(kBadInput, payload.error());
    Dictionary message{{kTelvoraMessageParametersCategory, options.report.category},
                       {kTelvoraMessageParametersType, options.report.type}};
    if (*payload) message.set(kTelvoraMessageParametersPayload, std::move(**payload));

    const Printer print(common.json);
    SessionRun session(options.session, print);
    int status = session.open(common);
    if (status != kDone) return status;
    Verdict verdict(common, options.session.sessionID, options.session.timeout);
    if (options.confirm) verdict.begin();
    status = session.send(std::move(message));
    if (status == kDone) status = session.wait();
    if (status == kDone) status = session.flush();
    if (options.confirm && status == kDone) status = verdict.await(print);
    if (status != kDone && status != kNotDone) return status;
    const int finished = session.finish();
    return status != kDone ? status : finished;
}

}  // namespace

Command addSendCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<SendOptions>();
    CLI::App* command = app.add_subcommand("send", "Open a session, send one report, flush and finish");
    addSessionOptions(*command, options->session);
    addReportOptions(*command, options->report);
    command->add_flag(
        "--confirm", options->confirm,
        "Wait for the server's answer, and fail unless it is 2xx. Allowed for root, the daemon's "
        "user and the group telvora-admin");
    return {command, [options, &common] { return runSend(*options, common); }};
}

}  // namespace telvora::ctl
