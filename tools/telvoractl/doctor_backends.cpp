// SPDX-License-Identifier: Apache-2.0
#include "doctor_backends.h"

#include <algorithm>
#include <array>
#include <sstream>

#include "config/client_framework.h"
#include "doctor_configuration.h"
#include "http/http_request_rules.h"
#include "policy/client_entry.h"
#include "policy/reporting_policy.h"
#include "protocol/status_keys.h"
#include "status_reader.h"
#include "telvora-bag/decision_printer.h"
#include "telvora/keys.h"

namespace telvora::ctl {

namespace {

// A decision that ends a session's reports, its step, and the remedy.
struct Cause {
    Decision decision;
    DoctorStep step;
    const char* remedy;
};

constexpr char kChangeDraw[] = "raise sampling_threshold in the bag; each session has a new draw";
constexpr std::array<Cause, 10> kCauses{{
    {Decision::userInfoMissing, DoctorStep::entry, "give the session user info, or do not require it"},
    {Decision::noEntry, DoctorStep::entry, "add an entry for this client to the bag, or correct its name"},
    {Decision::consentMissing, DoctorStep::consent, "if the user agrees: telvoractl consent on"},
    {Decision::countryMissing, DoctorStep::country, "add the country to locale_whitelist, or set the locale"},
    {Decision::deviceMissing, DoctorStep::device, "add the device to device_whitelist"},
    {Decision::hardwareExcluded, DoctorStep::device, "take the device out of device_blacklist"},
    {Decision::filtersMissing, DoctorStep::lists, "add filters to the entry, if need be an empty array"},
    {Decision::thresholdMissing, DoctorStep::sampling, "add sampling_threshold to the entry"},
    {Decision::sampledOut, DoctorStep::sampling, kChangeDraw},
    {Decision::beyondOverride, DoctorStep::sampling, kChangeDraw},
}};

struct Decided {
    Decision decision;
    std::string line;
};

// Records the decisions of one backend.
class Recorder final : public DecisionTrace {
  public:
    Recorder(const bag::Scenario& scenario, const Array& clients, const DeviceIdentity& identity)
        : printer_(unused_, scenario) {
        printer_.begin(clients);
        printer_.setIdentity(identity);
    }

    void decided(const std::string&, Decision decision, const Dictionary* subject,
                 const ReportingPolicy& soFar) override {
        decided_.push_back({decision, printer_.lineOf(decision, subject, soFar)});
    }
    void filtered(const std::string&, const std::string&, const EventFilter&) override {}
    void leaving(const std::string&, std::span<const Dictionary>) override {}

    const std::vector<Decided>& all() const { return decided_; }
    // The line of a decision; null if it was not made.
    const std::string* lineOf(std::initializer_list<Decision> decisions) const {
        for (const Decided& made : decided_) {
            if (std::ranges::find(decisions, made.decision) != decisions.end()) return &made.line;
        }
        return nullptr;
    }
    // The lines of the entries that were passed over: "; clients[0]: ...".
    std::string skipped() const {
        std::string lines;
        for (const Decided& made : decided_) {
            if (made.decision == Decision::namesDiffer || made.decision == Decision::frameworkTooOld)
                lines += "; " + made.line;
        }
        return lines;
    }

  private:
    std::ostringstream unused_;
    bag::DecisionPrinter printer_;
    std::vector<Decided> decided_;
};

// One backend that posts reports.
class BackendSteps {
  public:
    // The arguments outlive the object.
    BackendSteps(DoctorReport& report, const DoctorFacts& facts, const DoctorSession& session,
                 const bag::Scenario& scenario, const std::string& name, const Array& clients)
        : report_(report),
          facts_(facts),
          session_(session),
          properties_(scenario.device),
          recorder_(scenario, clients, identity_),
          policy_(decide(scenario, name, clients)) {}

    void examine();

  private:
    ReportingPolicy decide(const bag::Scenario& scenario, const std::string& name, const Array& clients);
    void explainUpTo(DoctorStep failed);
    void explainWithoutUserInfo();
    std::string countryText() const;
    std::string deviceText() const;
    void examineLists();
    void examineServer();
    void examineAnswers(const std::string& address);
    // A good step, if the step comes before the one that failed.
    void passed(DoctorStep failed, DoctorStep step, const std::string& cause) {
        if (step < failed) report_.good(step, cause);
    }

    DoctorReport& report_;
    const DoctorFacts& facts_;
    const DoctorSession& session_;
    const DeviceProperties properties_;
    // No file can be made there: an identifier of the trial stays in memory.
    UserDefaults nowhere_{"/proc/nowhere", "/proc/nowhere"};
    const DeviceIdentity identity_{properties_, nowhere_};
    Recorder recorder_;
    const ReportingPolicy policy_;
};

ReportingPolicy BackendSteps::decide(const bag::Scenario& scenario, const std::string& name,
                                     const Array& clients) {
    const Dictionary userInfo{{kTelvoraUserInfoClientName, *scenario.clientName},
                              {kTelvoraUserInfoServiceName, scenario.serviceName.value_or("")}};
    const Dictionary& settings = dictionaryIn(facts_.findings, status::kSettings);
    ReportingPolicy initial;
    if (const auto* url = settings.string("httpsPostURL")) {
        initial.postURL = url;
        initial.useDefaultPostURL = true;
    }
    return nextPolicy(std::move(initial), {.identity = identity_,
                                           .countryCode = [&scenario] { return scenario.country; },
                                           .trace = &recorder_,
                                           .backend = name,
                                           .clients = clients,
                                           .userInfo = scenario.requireUserInfo ? &userInfo : nullptr,
                                           .requireUserInfo = scenario.requireUserInfo,
                                           .frameworkVersion = versionComponents(scenario.framework),
                                           .samplingFactor = scenario.draw,
                                           .consent = scenario.consent,
                                           .productFamily = identity_.deviceName(),
                                           .hardwareType = identity_.productType()});
}

void BackendSteps::examine() {
    const Decided& last = recorder_.all().back();
    const auto cause = std::ranges::find(kCauses, last.decision, &Cause::decision);
    if (cause != kCauses.end()) {
        explainUpTo(cause->step);
        return report_.bad(cause->step, last.line + recorder_.skipped(), cause->remedy);
    }
    if (last.decision == Decision::drawnIn) {
        explainUpTo(DoctorStep::server);
    } else {
        explainWithoutUserInfo();
    }
    examineLists();
    examineServer();
}

void BackendSteps::explainUpTo(DoctorStep failed) {
    if (const auto* taken = recorder_.lineOf({Decision::entryTaken}))
        passed(failed, DoctorStep::entry, *taken + recorder_.skipped());
    if (const auto* consent = recorder_.lineOf({Decision::consentGiven, Decision::consentOverridden}))
        passed(failed, DoctorStep::consent, *consent);
    passed(failed, DoctorStep::country, countryText());
    passed(failed, DoctorStep::device, deviceText());
    if (const auto* drawn = recorder_.lineOf({Decision::drawnIn}))
        passed(failed, DoctorStep::sampling, *drawn);
}

void BackendSteps::explainWithoutUserInfo() {
    report_.good(DoctorStep::entry, recorder_.all().back().line);
    for (const DoctorStep step :
         {DoctorStep::consent, DoctorStep::country, DoctorStep::device, DoctorStep::sampling})
        report_.good(step, "not asked: the session requires no user info");
}

std::string BackendSteps::countryText() const {
    const Dictionary* entry = policy_.entry;
    const std::string* list = entry != nullptr ? ClientEntry(*entry).countries() : nullptr;
    const std::string listText = list != nullptr ? "\"" + *list + "\"" : "(absent)";
    if (!facts_.findings.contains(status::kCountry))
        return "the country is unknown, which passes every locale_whitelist; this one: " + listText;
    return text(facts_.findings, status::kCountry) + ", from " +
           text(facts_.findings, status::kCountrySource) + ", is in locale_whitelist " + listText;
}

std::string BackendSteps::deviceText() const {
    const Dictionary& device = dictionaryIn(facts_.findings, status::kDevice);
    return "DeviceName " + text(device, "DeviceName") + " and ProductType " + text(device, "ProductType") +
           " pass the entry's lists";
}

void BackendSteps::examineLists() {
    const Array *const whitelist = policy_.eventWhitelist, *const blacklist = policy_.eventBlacklist;
    if (!session_.category) {
        const bool lists = whitelist != nullptr || blacklist != nullptr;
        return report_.good(DoctorStep::lists, lists ? "the entry has lists of categories: give --category"
                                                     : "every category passes");
    }
    const std::string category = "category " + std::to_string(*session_.category);
    const char* list = nullptr;
    if (whitelist != nullptr && !listHoldsCategory(*whitelist, *session_.category)) {
        list = " is excluded: it is not on event_whitelist";
    } else if (blacklist != nullptr && listHoldsCategory(*blacklist, *session_.category)) {
        list = " is excluded: it is on event_blacklist";
    }
    if (list == nullptr) return report_.good(DoctorStep::lists, category + " passes the entry's lists");
    report_.bad(DoctorStep::lists, category + list, "change the list in the bag, or the report's category");
}

void BackendSteps::examineServer() {
    if (policy_.postURL == nullptr) {
        return report_.bad(DoctorStep::server, "there is no URL to post to: the entry has no post_url",
                           "add post_url to the entry");
    }
    const std::string address = urlForLog(*policy_.postURL);
    report_.good(DoctorStep::server,
                 address + (policy_.useDefaultPostURL ? ", by the setting httpsPostURL" : ", by the entry"));
    examineAnswers(address);
}

void BackendSteps::examineAnswers(const std::string& address) {
    if (const std::string hold = holdText(facts_.status); !hold.empty()) {
        return report_.bad(DoctorStep::answers, "reports are held: " + hold,
                           "they leave when that ends; realtime ones leave at once, see holdOnMetered and "
                           "holdOnBattery in telvorad.defaults(5)");
    }
    for (const Dictionary& server : entriesIn(facts_.status, status::kServers)) {
        if (text(server, status::kUrl) != address) continue;
        const Dictionary& last = dictionaryIn(server, status::kLast);
        const Dictionary& failure = dictionaryIn(server, status::kLastFailure);
        const std::string counts = "; " + text(server, status::kFailures) + " of " +
                                   text(server, status::kRequests) + " requests failed";
        const bool failed = !failure.empty() && failure == last;
        const std::string cause =
            "the last answer: " + outcomeText(last) + ", " + ageText(last, status::kTime) + counts;
        if (!failed) return report_.good(DoctorStep::answers, cause);
        const char* const remedy = last.contains(status::kHttpStatus)
                                       ? "look at the reporting server; after a 5xx, a session stops "
                                         "reporting until it is opened anew"
                                       : remedyWithoutAnswer(text(last, status::kReason));
        return report_.bad(DoctorStep::answers, cause, remedy);
    }
    const bool waits = facts_.status.integer(status::kHttpPending).value_or(0) > 0;
    report_.unknown(DoctorStep::answers, std::string("no post there was answered since the daemon's start") +
                                             (waits ? "; requests are under way: ask again" : ""));
}

bag::Scenario scenarioOf(const DoctorFacts& facts, const DoctorSession& session) {
    bag::Scenario scenario;
    scenario.clientType = static_cast<uint32_t>(*facts.clientType);
    scenario.clientName = session.clientName.value_or("");  // user info without a name
    scenario.serviceName = session.serviceName;
    scenario.requireUserInfo = session.requireUserInfo;
    scenario.device = dictionaryIn(facts.findings, status::kDevice);
    if (facts.findings.contains(status::kCountry)) scenario.country = text(facts.findings, status::kCountry);
    scenario.consent = facts.findings.boolean(status::kConsent);
    scenario.draw = session.draw;
    scenario.framework = text(facts.findings, status::kFramework);
    return scenario;
}

}  // namespace

void examineBackends(DoctorReport& report, const DoctorFacts& facts, const DoctorSession& session) {
    const Dictionary* const section = facts.findings.dictionary(status::kSection);
    if (section == nullptr) return;
    const bag::Scenario scenario = scenarioOf(facts, session);
    const bool both =
        section->contains(kTelvoraBackendHTTPPost) && section->contains(kTelvoraBackendHTTPPost2);
    bool posts = false;
    for (const char* name : {kTelvoraBackendHTTPPost, kTelvoraBackendHTTPPost2}) {
        const PropertyList* profile = section->find(name);
        if (profile == nullptr) continue;
        posts = true;
        if (both) report.setBackend(name);
        const auto* settings = profile->getIf<Dictionary>();
        const Array* clients = settings != nullptr ? settings->array("clients") : nullptr;
        if (clients == nullptr) {
            report.bad(DoctorStep::entry, std::string(name) + " has no array \"clients\"",
                       "correct the bag: telvora-bag lint");
        } else if (scenario.device.string("DeviceName") == nullptr) {
            report.bad(DoctorStep::device, "the device has no name",
                       "set DeviceName in device.plist, telvorad(8)");
        } else {
            BackendSteps(report, facts, session, scenario, name, *clients).examine();
        }
    }
    report.setBackend("");
    if (!posts) report.unknown(DoctorStep::entry, "the section has no backend that posts reports over HTTPS");
}

}  // namespace telvora::ctl
