// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "session_run.h"
#include "telvora/keys.h"

namespace telvora::ctl {

namespace {

struct SendOptions {
    SessionOptions session;
    ReportOptions report;
};

int runSend(const SendOptions& options, const CommonOptions& common) {
    auto payload = options.report.payloadOrNothing();
    if (!payload) return fail(kBadInput, payload.error());
    Dictionary message{{kTelvoraMessageParametersCategory, options.report.category},
                       {kTelvoraMessageParametersType, options.report.type}};
    if (*payload) message.set(kTelvoraMessageParametersPayload, std::move(**payload));

    SessionRun session(options.session, Printer(common.json));
    int status = session.open(common);
    if (status == kDone) status = session.send(std::move(message));
    if (status == kDone) status = session.wait();
    return status == kDone ? session.leave() : status;
}

}  // namespace

Command addSendCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<SendOptions>();
    CLI::App* command = app.add_subcommand("send", "Open a session, send one report, flush and finish");
    addSessionOptions(*command, options->session);
    addReportOptions(*command, options->report);
    return {command, [options, &common] { return runSend(*options, common); }};
}

}  // namespace telvora::ctl
