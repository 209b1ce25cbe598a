// SPDX-License-Identifier: Apache-2.0
//
// Follows the way of a report from the program to the server, and names the first step that stops it.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <limits>

#include "client/status_query.h"
#include "diagnosis/findings.h"
#include "doctor_backends.h"
#include "doctor_socket.h"
#include "output.h"
#include "platform/uuid.h"
#include "protocol/status_keys.h"
#include "session_options.h"
#include "status_reader.h"
#include "trial_session.h"

namespace telvora::ctl {

namespace {

struct DoctorOptions {
    std::optional<int64_t> clientType;
    std::optional<pid_t> pid;
    std::optional<double> draw;
    DoctorSession session;
};

constexpr char kForAdministrators[] = "only root and the group telvora-admin may see it";

bool isForbidden(const BusQueryFailure& failure, const std::string& socket) {
    if (failure.kind == BusQueryFailure::Kind::kRefused) return true;
    return access(socket.c_str(), W_OK) != 0 && errno == EACCES;
}

// The session that connected last, for a caller who named no client type.
void takeLastSession(DoctorFacts& facts, DoctorSession& tried) {
    const std::vector<Dictionary> sessions = entriesIn(facts.status, status::kSessions);
    if (sessions.empty()) return;
    facts.clientType = sessions.back().integer(status::kClientType);
    if (const auto* name = sessions.back().string(status::kClientName)) tried.clientName = *name;
    if (const auto* name = sessions.back().string(status::kServiceName)) tried.serviceName = *name;
}

tl::expected<void, BusQueryFailure> askDaemon(DoctorFacts& facts, DoctorSession& tried,
                                              const std::string& socket) {
    auto status = queryStatus(kGetStatus, socket);
    if (!status) return tl::unexpected(status.error());
    facts.status = std::move(*status);
    if (!facts.clientType) takeLastSession(facts, tried);
    Dictionary query{{status::kProcess, describe(facts.process)}};
    if (facts.clientType) query.set(status::kClientType, static_cast<long long>(*facts.clientType));
    auto findings = queryFindings(query, socket);
    if (!findings) return tl::unexpected(findings.error());
    facts.findings = std::move(*findings);
    facts.fromDaemon = facts.hasSettings = true;
    if (auto after = queryStatus(kGetStatus, socket)) facts.status = std::move(*after);
    return {};
}

// The quotas of the process's user that have no room. Log lines stop no report, and this program's own
// connection shows that there is room for one.
void examineQuotas(DoctorReport& report, const DoctorFacts& facts) {
    for (const Dictionary& user : entriesIn(facts.status, status::kUsers)) {
        if (user.integer(status::kUser) != facts.process.uid) continue;
        for (const auto& [name, value] : dictionaryIn(user, status::kQuotas)) {
            const auto* quota = value.getIf<Dictionary>();
            const auto limit = quota != nullptr ? quota->integer(status::kLimit) : std::nullopt;
            if (name == "logLines" || (name == "connections" && facts.process.uid == geteuid())) continue;
            if (!limit || quota->integer(status::kHeld).value_or(0) < *limit) continue;
            report.bad(DoctorStep::daemon,
                       "the quota " + name + " of user " + text(user, status::kUser) +
                           " is full: " + text(*quota, status::kHeld) + " of " + text(*quota, status::kLimit),
                       "end some of the user's programs, or raise the quota, see telvorad.defaults(5)");
        }
    }
}

void examineForAdministrator(DoctorReport& report, const DoctorFacts& facts, const DoctorSession& tried) {
    const Dictionary& daemon = dictionaryIn(facts.status, status::kDaemon);
    report.good(DoctorStep::daemon, "telvorad " + text(daemon, status::kVersion) + ", pid " +
                                        text(daemon, status::kPid) + ", up " +
                                        durationText(daemon.real(status::kUptime).value_or(0)));
    examineQuotas(report, facts);
    examineConfiguration(report, facts);
    if (facts.clientType) examineBackends(report, facts, tried);
}

// Without the daemon's findings: those of this process, and the daemon's answers to a session.
void examineAsClient(DoctorReport& report, DoctorFacts& facts, const DoctorSession& tried,
                     const CommonOptions& common, bool isThisProcess) {
    findLocally(facts);
    examineConfiguration(report, facts);
    report.setRest(kForAdministrators);
    if (report.isBad(DoctorStep::socket)) return;
    if (isThisProcess && facts.clientType) {
        trySession(report, common, *facts.clientType, tried);
    } else {
        report.unknown(DoctorStep::daemon, isThisProcess ? "no --client-type is given" : kForAdministrators);
    }
}

int runDoctor(const DoctorOptions& options, const CommonOptions& common) {
    DoctorFacts facts;
    facts.clientType = options.clientType;
    DoctorSession tried = options.session;
    // Cut to the digits that people read.
    tried.draw = options.draw.value_or(std::floor(uniformRandom48() * 1e6) / 1e6);
    const auto process = options.pid ? peerOfProcess(*options.pid) : thisProcess();
    if (!process) return fail(kBadInput, "there is no process " + std::to_string(*options.pid));
    facts.process = *process;

    const std::string socket = statusSocketBeside(common.socket());
    Progress progress;
    progress.show("asking the daemon, which may fetch a bag");
    tl::expected<void, BusQueryFailure> asked;
    awaitDaemon(common, [&] {
        asked = askDaemon(facts, tried, socket);
        return asked || asked.error().kind != BusQueryFailure::Kind::kUnreachable;
    });
    progress.clear();

    DoctorReport report;
    examineSocket(report, common.socket(), facts.process);
    if (asked) {
        examineForAdministrator(report, facts, tried);
    } else if (isForbidden(asked.error(), socket)) {
        examineAsClient(report, facts, tried, common, !options.pid);
    } else {
        findLocally(facts);
        examineConfiguration(report, facts);
        if (!report.isBad(DoctorStep::socket)) {
            report.bad(DoctorStep::daemon, "no answer on " + socket + ": " + asked.error().message,
                       "see 'systemctl status com.zandor.telvorad.service', and the system log");
        }
        report.setRest("the daemon does not answer");
    }
    report.print(common.json);
    return report.status();
}

}  // namespace

Command addDoctorCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<DoctorOptions>();
    CLI::App* command = app.add_subcommand("doctor", "Find the reason why no report arrives");
    command
        ->add_option("--client-type", options->clientType,
                     "Client type; default: that of the last connected session, and its names")
        ->check(CLI::Range(int64_t{0}, int64_t{std::numeric_limits<uint32_t>::max()}));
    command->add_option("--client-name", options->session.clientName, "Client name");
    command->add_option("--service-name", options->session.serviceName, "Service name");
    command->add_flag("!--no-user-info-required", options->session.requireUserInfo,
                      "The session does not require user info");
    command->add_option("--category", options->session.category, "Category of the report, for lists");
    command->add_option("--pid", options->pid, "Another process, whose entitlement is examined");
    command->add_option("--draw", options->draw, "The session's sampling factor; default: a random one")
        ->check(CLI::Range(0.0, 1.0));
    command->footer(
        "Follows the way of a report, one line a step. The exit status is the number of the first step that\n"
        "failed, 0 if there is none. No report is sent, unless the caller may not read the daemon's status:\n"
        "then the doctor opens a session of its own.");
    return {command, [options, &common] { return runDoctor(*options, common); }};
}

}  // namespace telvora::ctl
