// SPDX-License-Identifier: Apache-2.0
#include "doctor_configuration.h"

#include <unistd.h>

#include <cerrno>

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
               "add a file for this program to " + directory + ", see telvorad.entitlements(5)");
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
    report.bad(
        DoctorStep::key,
        "there is no public key in " + directory + (problems.empty() ? "" : " that can be used: " + problems),
        "install the key there that 'telvora-bag keygen --public' wrote, as publicKey.der");
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

std::string remedyOfDownload(const Dictionary& bag) {
    const int64_t answered = bag.integer(status::kHttpStatus).value_or(0);
    const std::string reason = text(bag, status::kReason);
    const auto says = [&reason](const char* word) { return reason.find(word) != std::string::npos; };
    if (answered >= 500) return "look at the bag server";
    if (answered != 0) return "publish the bag at this URL, or correct the setting telvora_storebag_url";
    if (says("certificate") || says("SSL"))
        return "give the daemon the server's authority: the system's store, or SSL_CERT_FILE, see telvorad(8)";
    if (says("resolve")) return "correct the host in telvora_storebag_url, or the resolution of names";
    return "see that the URL is right, and that this device reaches the server";
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
            std::string("sign the bag with the private key of this public key: telvora-bag sign") + kRefresh);
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
