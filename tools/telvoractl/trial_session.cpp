// SPDX-License-Identifier: Apache-2.0
#include "trial_session.h"

#include <unistd.h>

#include "answers.h"
#include "session_options.h"

namespace telvora::ctl {

namespace {

constexpr double kTimeout = 60;  // above the time of several fetches of bags
constexpr char kAskAdministrator[] =
    "run the doctor as root or as a member of telvora-admin, which shows the cause";

void explainStates(DoctorReport& report, const ReportingStates& states) {
    report.good(DoctorStep::daemon, "it answers StartConfig");
    if (!states) {
        if (report.isBad(DoctorStep::bag)) return;
        return report.bad(DoctorStep::fetch, "the daemon has no bag for this client type", kAskAdministrator);
    }
    std::string names;
    for (const std::string& name : *states)
        names += (names.empty() ? "" : ", ") + name;
    if (names.empty())
        return report.bad(DoctorStep::entry, "no backend reports for this session", kAskAdministrator);
    report.good(DoctorStep::entry, "these report or are sampled out: " + names);
}

}  // namespace

void trySession(DoctorReport& report, const CommonOptions& common, int64_t clientType,
                const DoctorSession& tried) {
    SessionOptions options;
    options.clientType = clientType;
    options.sessionID = getpid();
    options.requireUserInfo = tried.requireUserInfo;
    options.clientName = tried.clientName.value_or("");
    options.serviceName = tried.serviceName;
    ReportingStates states;
    Answers answers(kTimeout);
    ClientRuntime runtime;
    auto session = connect(runtime, common);
    if (!session) return report.bad(DoctorStep::daemon, session.error(), kAskAdministrator);
    answers.expectOne();
    (*session)->setSessionInfo(options.sessionInfo(), options.userInfo(), {},
                               answers.completion<void>([] {}));
    answers.expectOne();
    (*session)->startConfig(
        answers.completion<ReportingStates>([&](const ReportingStates& given) { states = given; }));
    if (answers.wait("waiting for the session's configuration")) return explainStates(report, states);
    const auto failure = answers.failure();
    if (failure && failure->kind == CallFailure::Kind::kConnectionLost) {
        if (report.isBad(DoctorStep::entitlement)) return;
        return report.bad(DoctorStep::entitlement, "the daemon closed the connection: " + failure->message,
                          "see telvorad.entitlements(5)");
    }
    report.bad(DoctorStep::daemon, failure ? failure->message : "it did not answer in time",
               kAskAdministrator);
}

}  // namespace telvora::ctl
