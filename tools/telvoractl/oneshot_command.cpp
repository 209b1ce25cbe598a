// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "answers.h"
#include "output.h"
#include "session_options.h"

namespace telvora::ctl {

namespace {

struct OneshotOptions {
    SessionOptions session;
    ReportOptions report;
};

int runOneshot(const OneshotOptions& options, const CommonOptions& common) {
    auto payload = options.report.payloadOrNothing();
    if (!payload) return fail(kBadInput, payload.error());

    std::string outcome;
    Answers answers(options.session.timeout);
    ClientRuntime runtime;  // declared last: its thread uses the two above until its end
    const auto session = connect(runtime, common);
    if (!session) return fail(kDaemonMissing, session.error());
    answers.expectOne();
    (*session)->sendSingleMessage(
        options.session.sessionInfo(), options.session.userInfo(), options.report.category,
        options.report.type, *payload,
        answers.completion<std::string>([&outcome](const std::string& answer) { outcome = answer; }));
    if (!answers.wait("waiting for the answer")) return answers.report();
    Printer(common.json)("outcome", std::optional<std::string>(outcome));
    if (outcome == "finished") return kDone;
    return fail(kNotDone, outcome + whyWithoutBag(options.session.clientType));
}

}  // namespace

Command addOneshotCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<OneshotOptions>();
    CLI::App* command = app.add_subcommand("oneshot", "Send one report without a session");
    command->footer("Prints \"finished\" after the backends have accepted the report.");
    addSessionOptions(*command, options->session);
    addReportOptions(*command, options->report);
    return {command, [options, &common] { return runOneshot(*options, common); }};
}

}  // namespace telvora::ctl
