// SPDX-License-Identifier: Apache-2.0
#include "doctor_configuration.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "config/client_type.h"
#include "diagnosis/findings.h"
#include "doctor_socket.h"
#include "protocol/status_keys.h"
#include "status_reader.h"

namespace telvora::ctl {

namespace {

constexpr char kRefresh[] = "; 'telvoractl refresh' then fetches it at once";

void examineEntitlement(DoctorReport& report, const DoctorFacts& facts) {
    constexpr auto kStep = DoctorStep::entitlement;
    const Dictionary& entitlement = dictionaryIn(facts.findings, status::kEntitlement);
    const std::string process = describeProcess(facts.process), file = text(entitlement, status::kFile);
    if (entitlement.boolean(status::kGranted)) return report.good(kStep, file + " entitles " + process);
    const std::string directory = text(entitlement, status::kDirectory);
    if (!facts.fromDaemon && access(directory.c_str(), R_OK | X_OK) != 0 && errno == EACCES)
        return report.unknown(kStep, directory + " may not be read");
    std::string cause = process + " is not entitled: ";
    cause += entitlement.contains(status::kFile) ? file + " takes the entitlement away"
                                                 : "no file of " + directory + " gives the entitlement";
    for (const Dictionary& other : entriesIn(entitlement, status::kOthers))
        cause += "; " + text(other, status::kFile) + ": " + text(other, status::kReason);
    report.bad(kStep, cause,
               "let a file of " + directory +
                   " entitle the program, see telvorad.entitlements(5); the installed one entitles the group "
                   "telvora");
}

void examineSettings(DoctorReport& report, const DoctorFacts& facts) {
    constexpr auto kStep = DoctorStep::settings;
    if (!facts.hasSettings) return report.unknown(kStep, "the daemon's settings may not be read");
    std::string faults;
    for (const Dictionary& fault : entriesIn(facts.findings, status::kFaults))
        faults +=
            (faults.empty() ? "" : "; ") + text(fault, status::kKey) + " " + text(fault, status::kReason);
    if (faults.empty()) return report.good(kStep, "the daemon knows every key and takes every value");
    report.bad(kStep, "without effect: " + faults,
               "see 'telvoractl defaults list', and telvorad.defaults(5)");
}

void examineKey(DoctorReport& report, const DoctorFacts& facts) {
    std::string used, problems;
    for (const Dictionary& key : entriesIn(facts.findings, status::kPublicKeys)) {
        const bool isUsed = !key.contains(status::kProblem);
        std::string& list = isUsed ? used : problems;
        list +=
            (list.empty() ? "" : "; ") + text(key, status::kFile) +
            (isUsed ? ", SHA-256 " + text(key, status::kFingerprint) : ": " + text(key, status::kProblem));
    }
    if (!used.empty()) return report.good(DoctorStep::key, used);
    const std::string directory = text(facts.findings, status::kKeyDirectory);
    report.bad(DoctorStep::key,
               problems.empty()
                   ? "there is no publicKey.der in " + directory + ", and none in the configuration directory"
                   : "there is no public key that can be used: " + problems,
               "install the file that 'telvora-bag keygen --public' wrote: install -m 644 publicKey.der " +
                   directory);
}

// The bag's name and its address. Returns whether there is one.
bool examineBag(DoctorReport& report, const DoctorFacts& facts) {
    constexpr auto kStep = DoctorStep::bag;
    const ClientTypeFacts* const type = factsOfClientType(*facts.clientType);
    const std::string given = "client type " + std::to_string(*facts.clientType);
    if (type == nullptr || type->bagName.empty()) {
        report.bad(kStep, "no bag exists for " + given + (type == nullptr ? ", which is none" : ""),
                   "use a client type from 5 to " + std::to_string(kLastClientType));
        return false;
    }
    if (!facts.hasSettings) return true;
    const std::string server = text(facts.findings, status::kBagServer);
    const std::string* setting = facts.findings.string(status::kBagServerSetting);
    if (facts.fromDaemon && setting != nullptr && *setting != server) {
        report.bad(
            kStep,
            "the setting telvora_storebag_url is " + *setting + ", but the daemon still uses " + server,
            "restart the daemon: it reads this setting once");
        return true;
    }
    report.good(kStep, given + " has the bag " + server + "/" + std::string(type->bagName) +
                           (setting == nullptr ? " (built in: no setting telvora_storebag_url)" : ""));
    return true;
}

// The daemon's record of the client type's bag; empty without one.
Dictionary recordOf(const DoctorFacts& facts) {
    const std::string name(factsOfClientType(*facts.clientType)->bagName);
    for (const Dictionary& bag : entriesIn(facts.status, status::kBags)) {
        if (text(bag, status::kName) == name) return bag;
    }
    return {};
}

// The remedies of requests without an answer, by a word of the reason; the first that fits.
constexpr char kClientFiles[] =
    "correct the settings clientCertificate and clientKey; the daemon's user reads both files";
constexpr char kProxy[] = "correct the setting proxy, see telvorad.defaults(5)";
constexpr std::pair<std::string_view, const char*> kRemedies[] = {
    {"pinned", "correct the setting pinnedPublicKeys, see telvorad.defaults(5)"},
    {"client certificate", kClientFiles},
    {"private key", kClientFiles},
    {"alert", "the server refuses this device: see the settings clientCertificate and clientKey"},
    {"certificate file", "correct the setting caFile, or SSL_CERT_FILE: certificates in PEM"},
    {"expired", "renew the server's certificate, or correct the device's clock"},
    {"not yet valid", "correct the device's clock"},
    {"subject name", "correct the host in the URL, or the server's certificate"},
    {"certificate",
     "give the daemon the server's authority: the system's store, caFile or SSL_CERT_FILE, see telvorad(8)"},
    {"proxy", kProxy},
    {"CONNECT tunnel", kProxy},
    {"SOCKS", kProxy},
    {"resolve", "correct the host in the URL, or the resolution of names"},
    {"longer than allowed", "publish a shorter document: 16 MiB at most"},
    {"URL", "correct the URL; the daemon reads telvora_storebag_url when it starts"},
    {"", "see that the URL and the setting proxy are right, and that this device reaches the server"},
};

std::string remedyOfDownload(const Dictionary& bag) {
    const int64_t answered = bag.integer(status::kHttpStatus).value_or(0);
    const std::string reason = text(bag, status::kReason);
    if (answered >= 500) return "look at the bag server";
    if (answered != 0) return "publish the bag at this URL, or correct the setting telvora_storebag_url";
    return remedyWithoutAnswer(reason);
}

void examineFetch(DoctorReport& report, const Dictionary& bag) {
    const std::string age = durationText(bag.real(status::kAge).value_or(0)) + " ago";
    const std::string next = durationText(bag.real(status::kNextFetch).value_or(0));
    const std::string step = bag.contains(status::kFailedStep) ? text(bag, status::kFailedStep) : "";
    const std::string reason = text(bag, status::kReason), url = text(bag, status::kUrl);
    const std::string later = "; the next attempt is in " + next;
    const bool downloaded = step != "download";
    if (downloaded) {
        report.good(DoctorStep::fetch, url + " answered " + text(bag, status::kHttpStatus) + ", " + age +
                                           "; the next fetch is in " + next);
    } else {
        report.bad(DoctorStep::fetch, url + ", " + age + ": " + reason + later,
                   remedyOfDownload(bag) + kRefresh);
    }
    if (step == "key" || step == "signature") {
        report.bad(
            DoctorStep::signature, reason + later,
            std::string(
                step == "key"
                    ? "install a key that can be used first, see the step key"
                    : "sign the bag with the private key of this public key, and publish the document: "
                      "telvora-bag publish") +
                kRefresh);
    } else if (downloaded) {
        report.good(DoctorStep::signature, "a public key verifies the bag");
    }
    if (step == "content" || step == "section") {
        report.bad(
            DoctorStep::section, reason + later,
            std::string("correct the bag, see storebag(5), or the setting environmentType") + kRefresh);
    }
}

void examineSection(DoctorReport& report, const DoctorFacts& facts, const Dictionary& bag) {
    const Dictionary* const section = facts.findings.dictionary(status::kSection);
    if (section == nullptr || report.isBad(DoctorStep::section)) return;
    std::string backends;
    for (const auto& [name, profile] : *section)
        backends += (backends.empty() ? "" : ", ") + name;
    const std::string cause = "\"" + text(facts.findings, status::kEnvironment) + "\" of version " +
                              text(bag, status::kVersion) + ", " + text(bag, status::kState) + ": " +
                              (backends.empty() ? "no backends" : backends);
    if (!backends.empty()) return report.good(DoctorStep::section, cause);
    report.bad(DoctorStep::section, cause, "name a backend in this section, see storebag(5)");
}

}  // namespace

const char* remedyWithoutAnswer(const std::string& reason) {
    return std::ranges::find_if(
               kRemedies,
               [&reason](const auto& remedy) { return reason.find(remedy.first) != std::string::npos; })
        ->second;
}

void findLocally(DoctorFacts& facts) {
    const Directories directories = Directories::fromEnvironment();
    UserDefaults defaults(directories.configuration, directories.state);
    const DeviceProperties properties(directories.configuration, defaults);
    const DeviceIdentity identity(properties, defaults);
    const Environment environment(defaults, identity);
    const ClientFramework framework(directories.framework, directories.configuration);
    const EntitlementStore entitlements(directories.configuration);
    facts.findings = configurationFindings(
        {directories, defaults, properties, identity, environment, framework, entitlements}, facts.process);
    facts.hasSettings =
        access((directories.state / "Preferences").c_str(), R_OK | X_OK) == 0 || errno == ENOENT;
}

void examineConfiguration(DoctorReport& report, const DoctorFacts& facts) {
    examineEntitlement(report, facts);
    examineSettings(report, facts);
    examineKey(report, facts);
    if (!facts.clientType) {
        return report.unknown(DoctorStep::bag, "no --client-type is given, and no session is connected");
    }
    if (!examineBag(report, facts)) return;
    const Dictionary bag = recordOf(facts);
    if (bag.empty()) return;
    examineFetch(report, bag);
    examineSection(report, facts, bag);
}

}  // namespace telvora::ctl
