// SPDX-License-Identifier: Apache-2.0
#include "status_tables.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "output.h"
#include "protocol/status_keys.h"
#include "status_reader.h"

namespace telvora::ctl {

namespace {

using Row = std::vector<std::string>;

// The reasons of states, in words. Others are self-evident.
constexpr std::array<std::pair<std::string_view, const char*>, 14> kReasons{{
    {"servedWithoutLink", "no entry has a URL"},
    {"userInfoMissing", "no user info"},
    {"noEntry", "no entry for the client"},
    {"consentMissing", "consent is off"},
    {"countryMissing", "country not in the list"},
    {"deviceMissing", "device not in the list"},
    {"hardwareExcluded", "device excluded"},
    {"filtersMissing", "entry without filters"},
    {"thresholdMissing", "no sampling threshold"},
    {"sampledOut", "above the sampling threshold"},
    {"beyondOverride", "above both sampling thresholds"},
    {"serverFailed", "the server answered 5xx"},
    {"parentFollowed", "as the parent session"},
    {"promoted", "promoted"},
}};

std::string reasonText(std::string_view reason) {
    const auto found = std::ranges::find(kReasons, reason, &decltype(kReasons)::value_type::first);
    return found != kReasons.end() ? found->second : "";
}

// Losses that the bag or the settings intend, and reports that the backend takes from no session.
bool isExclusion(std::string_view cause) {
    constexpr std::string_view kExclusions[] = {"notWhitelisted", "blacklisted", "disabled",
                                                "sampledOut",     "noUserInfo",  "notSupported"};
    return std::ranges::find(kExclusions, cause) != std::end(kExclusions);
}

void append(std::string& list, const std::string& element) {
    list += (list.empty() ? "" : ", ") + element;
}

int64_t countOf(const Dictionary& values, std::string_view key) {
    return values.integer(key).value_or(0);
}

// "disabled 4 (consent is off)", or with several reasons "disabled 5 (4 consent is off, 1 no user info)".
std::string disabledText(const Dictionary& account, const PropertyList& reports) {
    const Dictionary& reasons = dictionaryIn(account, status::kDisabledBecause);
    std::string list;
    for (const auto& [reason, count] : reasons) {
        const std::string words = reasonText(reason);
        if (!words.empty()) append(list, (reasons.size() > 1 ? textOf(count) + " " : "") + words);
    }
    return "disabled " + textOf(reports) + (list.empty() ? "" : " (" + list + ")");
}

std::string lossesOf(const Dictionary& account, bool exclusions) {
    std::string losses;
    for (const auto& [cause, reports] : dictionaryIn(account, status::kLost)) {
        if (isExclusion(cause) != exclusions || cause == "notSupported") continue;
        append(losses, cause == "disabled" ? disabledText(account, reports) : cause + " " + textOf(reports));
    }
    return losses.empty() ? "-" : losses;
}

void printTitled(const char* title, const std::vector<Row>& rows) {
    if (rows.size() < 2) return;
    std::printf("\n%s\n", title);
    printTable(rows);
}

void printRefusals(const Dictionary& refusals) {
    std::string causes;
    const std::pair<const char*, const char*> causesInWords[] = {{status::kNotEntitled, "not entitled"},
                                                                 {status::kTooFrequent, "too frequent"},
                                                                 {status::kOverQuota, "over quota"}};
    for (const auto& [key, words] : causesInWords) {
        if (countOf(refusals, key) > 0) append(causes, text(refusals, key) + " " + words);
    }
    if (causes.empty()) return;
    const Dictionary& last = dictionaryIn(refusals, status::kLast);
    std::string process;
    if (!last.empty()) {
        process = "; the last one not entitled: pid " + text(last, status::kPid) + ", user " +
                  text(last, status::kUser) +
                  (last.contains(status::kUnit) ? ", unit " + text(last, status::kUnit) : "") + ", " +
                  durationText(last.real(status::kAge).value_or(0)) + " ago";
    }
    std::printf("refused connections: %s%s\n", causes.c_str(), process.c_str());
}

void printDaemon(const Dictionary& status) {
    const Dictionary& daemon = dictionaryIn(status, status::kDaemon);
    std::printf("telvorad %s, pid %s, up %s, %s HTTP exchanges under way\n",
                text(daemon, status::kVersion).c_str(), text(daemon, status::kPid).c_str(),
                durationText(daemon.real(status::kUptime).value_or(0)).c_str(),
                text(status, status::kHttpPending).c_str());
    const Dictionary& sandbox = dictionaryIn(status, status::kSandbox);
    std::string inForce, missing;
    for (const auto& [name, value] : sandbox) {
        if (value.is<bool>()) append(value.boolValue() ? inForce : missing, name);
    }
    std::printf("sandbox %s, Landlock ABI %s: %s%s%s\n", text(sandbox, status::kProfile).c_str(),
                text(sandbox, status::kLandlockAbi).c_str(), inForce.c_str(),
                missing.empty() ? "" : "; not in force: ", missing.c_str());
    printRefusals(dictionaryIn(status, status::kRefusals));
    if (!status.contains(status::kLink)) return;
    const std::string hold = holdText(status);
    std::printf("reports are %s%s\n", hold.empty() ? "not held" : "held: ", hold.c_str());
}

void printKeys(const std::vector<Dictionary>& keys) {
    const auto isUsed = [](const Dictionary& key) { return !key.contains(status::kProblem); };
    if (std::ranges::any_of(keys, isUsed)) return;
    std::puts("no public key: no bag can be verified");
    for (const Dictionary& key : keys)
        std::printf("  %s: %s\n", text(key, status::kFile).c_str(), text(key, status::kProblem).c_str());
}

// A hierarchy is identified by its token and its user: "t of 1000".
std::string hierarchyOf(const Dictionary& session) {
    if (!session.contains(status::kToken)) return "-";
    return text(session, status::kToken) + " of " + text(session, status::kHierarchyUser) + ", level " +
           text(session, status::kLevel);
}

// "player", or with a service "player/video".
std::string nameOfClient(const Dictionary& session) {
    const std::string service =
        session.contains(status::kServiceName) ? "/" + text(session, status::kServiceName) : "";
    return text(session, status::kClientName) + service;
}

// "httpPost disabled (consent is off)"
std::string backendsOf(const Dictionary& session) {
    std::string backends;
    for (const auto& [name, value] : dictionaryIn(session, status::kBackends)) {
        const auto* backend = value.getIf<Dictionary>();
        if (backend == nullptr) continue;
        const std::string reason = reasonText(text(*backend, status::kReason));
        append(backends,
               name + " " + text(*backend, status::kState) + (reason.empty() ? "" : " (" + reason + ")"));
    }
    return backends.empty() ? "-" : backends;
}

void printSessions(const std::vector<Dictionary>& sessions) {
    std::vector<Row> rows{{"SESSION", "CLIENT", "TYPE", "PID", "USER", "UNIT", "HIERARCHY", "BACKENDS"}};
    for (const Dictionary& session : sessions) {
        const Dictionary& client = dictionaryIn(session, status::kClient);
        rows.push_back({text(session, status::kSessionID), nameOfClient(session),
                        text(session, status::kClientType), text(client, status::kPid),
                        text(client, status::kUser), text(client, status::kUnit), hierarchyOf(session),
                        backendsOf(session)});
    }
    printTitled("Sessions", rows);
}

// The accounts with a report that the backend takes from sessions.
void addAccounts(std::vector<Row>& rows, const std::string& whose, const Dictionary& accounts) {
    for (const auto& [name, value] : accounts) {
        const auto* account = value.getIf<Dictionary>();
        if (account == nullptr) continue;
        const int64_t unsupported = countOf(dictionaryIn(*account, status::kLost), "notSupported");
        const int64_t accepted = countOf(*account, status::kAccepted) - unsupported;
        if (accepted == 0) continue;
        rows.push_back({whose, name, std::to_string(accepted), text(*account, status::kDelivered),
                        text(*account, status::kHeld), text(*account, status::kInFlight),
                        lossesOf(*account, true), lossesOf(*account, false)});
    }
}

void printReports(const Dictionary& status, const std::vector<Dictionary>& sessions) {
    std::vector<Row> rows{
        {"SESSION", "BACKEND", "ACCEPTED", "DELIVERED", "HELD", "IN FLIGHT", "EXCLUDED", "LOST"}};
    for (const Dictionary& session : sessions)
        addAccounts(rows, text(session, status::kSessionID), dictionaryIn(session, status::kAccounts));
    addAccounts(rows, "all so far", dictionaryIn(status, status::kTotals));
    const Dictionary& before = dictionaryIn(status, status::kBefore);
    addAccounts(rows, "until " + ageText(before, status::kEndTime), dictionaryIn(before, status::kTotals));
    printTitled("Reports", rows);
}

// The quotas that are in use or have refused: "sessions 3 of 1000, 2 refused".
void printUsers(const std::vector<Dictionary>& users) {
    std::vector<Row> rows{{"USER", "QUOTAS IN USE"}};
    for (const Dictionary& user : users) {
        std::string uses;
        for (const auto& [name, value] : dictionaryIn(user, status::kQuotas)) {
            const auto* quota = value.getIf<Dictionary>();
            if (quota == nullptr) continue;
            const int64_t refused = countOf(*quota, status::kRefused);
            if (countOf(*quota, status::kHeld) == 0 && refused == 0) continue;
            append(uses, name + " " + text(*quota, status::kHeld) + " of " + text(*quota, status::kLimit) +
                             (refused > 0 ? " (" + std::to_string(refused) + " refused)" : ""));
        }
        rows.push_back({text(user, status::kUser), uses.empty() ? "-" : uses});
    }
    printTitled("Users", rows);
}

void printBags(const std::vector<Dictionary>& bags) {
    std::vector<Row> rows{{"BAG", "TYPE", "VERSION", "STATE", "LAST FETCH", "NEXT FETCH", "FAILURE"}};
    for (const Dictionary& bag : bags) {
        const std::string failure = bag.contains(status::kFailedStep)
                                        ? text(bag, status::kFailedStep) + ": " + text(bag, status::kReason)
                                        : "-";
        rows.push_back({text(bag, status::kName), text(bag, status::kClientType), text(bag, status::kVersion),
                        text(bag, status::kState), durationText(bag.real(status::kAge).value_or(0)) + " ago",
                        "in " + durationText(bag.real(status::kNextFetch).value_or(0)), failure});
    }
    printTitled("Bags", rows);
}

void printServers(const std::vector<Dictionary>& servers) {
    std::vector<Row> rows{{"SERVER", "REQUESTS", "FAILED", "LAST FAILURE"}};
    for (const Dictionary& server : servers) {
        const Dictionary& failure = dictionaryIn(server, status::kLastFailure);
        rows.push_back(
            {text(server, status::kUrl), text(server, status::kRequests), text(server, status::kFailures),
             failure.empty() ? "-" : outcomeText(failure) + ", " + ageText(failure, status::kTime)});
    }
    printTitled("Servers", rows);
}

}  // namespace

void printStatus(const Dictionary& status) {
    const std::vector<Dictionary> sessions = entriesIn(status, status::kSessions);
    printDaemon(status);
    printKeys(entriesIn(status, status::kPublicKeys));
    printSessions(sessions);
    printReports(status, sessions);
    printUsers(entriesIn(status, status::kUsers));
    printBags(entriesIn(status, status::kBags));
    printServers(entriesIn(status, status::kServers));
    std::fflush(stdout);
}

}  // namespace telvora::ctl
