// SPDX-License-Identifier: Apache-2.0
//
// The daemon's status for administrators: as JSON unchanged, or as tables.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "client/status_query.h"
#include "output.h"
#include "protocol/status_keys.h"
#include "session_options.h"
#include "util/utf8.h"

namespace telvora::ctl {

namespace {

using Row = std::vector<std::string>;
using Kind = BusQueryFailure::Kind;

const Dictionary& dictionaryIn(const Dictionary& parent, std::string_view key) {
    static const Dictionary kNone;
    const Dictionary* found = parent.dictionary(key);
    return found != nullptr ? *found : kNone;
}

// The dictionaries in an array.
std::vector<Dictionary> entriesIn(const Dictionary& parent, std::string_view key) {
    std::vector<Dictionary> entries;
    const Array* array = parent.array(key);
    for (const PropertyList& element : array != nullptr ? *array : Array()) {
        if (const auto* entry = element.getIf<Dictionary>()) entries.push_back(*entry);
    }
    return entries;
}

std::string text(const Dictionary& values, std::string_view key) {
    const PropertyList* value = values.find(key);
    return value != nullptr ? escapeControlCharacters(textOf(*value)) : "-";
}

std::string seconds(const Dictionary& values, std::string_view key) {
    return std::to_string(std::llround(values.real(key).value_or(0))) + " s";
}

// "disabled 1, rejected 3"
std::string lossesOf(const Dictionary& account) {
    std::string losses;
    for (const auto& [cause, reports] : dictionaryIn(account, status::kLost))
        losses += (losses.empty() ? "" : ", ") + cause + " " + textOf(reports);
    return losses.empty() ? "-" : losses;
}

void printTitled(const char* title, const std::vector<Row>& rows) {
    std::printf("\n%s\n", title);
    printTable(rows);
}

void printDaemon(const Dictionary& status) {
    const Dictionary& daemon = dictionaryIn(status, status::kDaemon);
    std::printf("telvorad %s, pid %s, up %s, %s HTTP exchanges under way\n",
                text(daemon, status::kVersion).c_str(), text(daemon, status::kPid).c_str(),
                seconds(daemon, status::kUptime).c_str(), text(status, status::kHttpPending).c_str());
    const Dictionary& sandbox = dictionaryIn(status, status::kSandbox);
    std::string inForce, missing;
    for (const auto& [name, value] : sandbox) {
        if (!value.is<bool>()) continue;
        std::string& list = value.boolValue() ? inForce : missing;
        list += (list.empty() ? "" : ", ") + name;
    }
    std::printf("sandbox %s, Landlock ABI %s: %s%s%s\n", text(sandbox, status::kProfile).c_str(),
                text(sandbox, status::kLandlockAbi).c_str(), inForce.c_str(),
                missing.empty() ? "" : "; not in force: ", missing.c_str());
}

void printKeys(const std::vector<Dictionary>& keys) {
    const auto isUsed = [](const Dictionary& key) { return !key.contains(status::kProblem); };
    if (std::any_of(keys.begin(), keys.end(), isUsed)) return;
    std::puts("no public key: no bag can be verified");
    for (const Dictionary& key : keys)
        std::printf("  %s: %s\n", text(key, status::kFile).c_str(), text(key, status::kProblem).c_str());
}

// A hierarchy is identified by its token and its user: "t of 1000".
std::string hierarchyOf(const Dictionary& session) {
    if (!session.contains(status::kToken)) return "-";
    return text(session, status::kToken) + " of " + text(session, status::kHierarchyUser);
}

void printSessions(const std::vector<Dictionary>& sessions) {
    std::vector<Row> rows{{"SESSION", "TYPE", "PID", "USER", "UNIT", "LEVEL", "HIERARCHY", "BACKENDS"}};
    for (const Dictionary& session : sessions) {
        const Dictionary& client = dictionaryIn(session, status::kClient);
        std::string backends;
        for (const auto& [name, backend] : dictionaryIn(session, status::kBackends)) {
            const auto* described = backend.getIf<Dictionary>();
            backends += (backends.empty() ? "" : ", ") + name + " " +
                        (described != nullptr ? text(*described, status::kState) : "-");
        }
        rows.push_back({text(session, status::kSessionID), text(session, status::kClientType),
                        text(client, status::kPid), text(client, status::kUser), text(client, status::kUnit),
                        text(session, status::kLevel), hierarchyOf(session),
                        backends.empty() ? "-" : backends});
    }
    printTitled("Sessions", rows);
}

void addAccounts(std::vector<Row>& rows, const std::string& whose, const Dictionary& accounts) {
    for (const auto& [name, value] : accounts) {
        if (const auto* account = value.getIf<Dictionary>()) {
            rows.push_back({whose, name, text(*account, status::kAccepted),
                            text(*account, status::kDelivered), text(*account, status::kHeld),
                            text(*account, status::kInFlight), lossesOf(*account)});
        }
    }
}

void printReports(const Dictionary& status, const std::vector<Dictionary>& sessions) {
    std::vector<Row> rows{{"SESSION", "BACKEND", "ACCEPTED", "DELIVERED", "HELD", "IN FLIGHT", "LOST"}};
    for (const Dictionary& session : sessions)
        addAccounts(rows, text(session, status::kSessionID), dictionaryIn(session, status::kAccounts));
    addAccounts(rows, "all so far", dictionaryIn(status, status::kTotals));
    printTitled("Reports", rows);
}

void printUsers(const std::vector<Dictionary>& users) {
    std::vector<Row> rows{{"USER", "QUOTA", "HELD", "LIMIT", "REFUSED"}};
    for (const Dictionary& user : users) {
        for (const auto& [name, value] : dictionaryIn(user, status::kQuotas)) {
            if (const auto* quota = value.getIf<Dictionary>()) {
                rows.push_back({text(user, status::kUser), name, text(*quota, status::kHeld),
                                text(*quota, status::kLimit), text(*quota, status::kRefused)});
            }
        }
    }
    printTitled("Users", rows);
}

void printBags(const std::vector<Dictionary>& bags) {
    std::vector<Row> rows{{"BAG", "TYPE", "VERSION", "STATE", "AGE", "MAX AGE"}};
    for (const Dictionary& bag : bags) {
        rows.push_back({text(bag, status::kName), text(bag, status::kClientType), text(bag, status::kVersion),
                        text(bag, status::kState), seconds(bag, status::kAge),
                        seconds(bag, status::kMaxAge)});
    }
    printTitled("Bags", rows);
}

int runStatus(const CommonOptions& common) {
    tl::expected<Dictionary, BusQueryFailure> status;
    awaitDaemon(common, [&] {
        status = queryStatus(kGetStatus, statusSocketBeside(common.socket()));
        return status || status.error().kind != Kind::kUnreachable;
    });
    if (!status) {
        const Kind kind = status.error().kind;
        return fail(kind == Kind::kRefused    ? kNotDone
                    : kind == Kind::kNoAnswer ? kNoAnswer
                                              : kDaemonMissing,
                    status.error().message);
    }
    if (common.json) {
        std::puts(toJson(*status).c_str());
        return kDone;
    }
    const std::vector<Dictionary> sessions = entriesIn(*status, status::kSessions);
    printDaemon(*status);
    if (status->contains(status::kPublicKeys)) printKeys(entriesIn(*status, status::kPublicKeys));
    printSessions(sessions);
    printReports(*status, sessions);
    printUsers(entriesIn(*status, status::kUsers));
    printBags(entriesIn(*status, status::kBags));
    return kDone;
}

}  // namespace

Command addStatusCommand(CLI::App& app, const CommonOptions& common) {
    CLI::App* command =
        app.add_subcommand("status", "Show sessions, reports and their losses, users, bags, sandbox");
    command->footer("For root, the daemon's user and the group telvora-admin.");
    return {command, [&common] { return runStatus(common); }};
}

}  // namespace telvora::ctl
