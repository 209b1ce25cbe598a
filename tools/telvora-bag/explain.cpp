// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/explain.h"

#include <sstream>

#include "config/storebag_fetcher.h"
#include "policy/absent_text.h"
#include "telvora-bag/decision_printer.h"
#include "telvora-bag/samples.h"
#include "util/log.h"
#include "util/utf8.h"

namespace telvora::bag {

namespace {

std::ostream* logTarget = nullptr;  // a log sink is a plain function pointer

// Prints the daemon's log lines into the output.
class LogAmongText {
  public:
    LogAmongText(std::ostream& out, int level) {
        logTarget = &out;
        setLogThreshold(level);
        setLogSink([](int lineLevel, std::string_view line) {
            *logTarget << "  log: <" << lineLevel << ">" << line << '\n';
        });
    }
    ~LogAmongText() {
        setLogSink(nullptr);
        setLogThreshold(kLogInfo);
        logTarget = nullptr;
    }
    LogAmongText(const LogAmongText&) = delete;
    LogAmongText& operator=(const LogAmongText&) = delete;
};

void explainBackend(std::ostream& out, const std::string& name, const PropertyList& profile,
                    const Scenario& scenario, bool log) {
    out << '\n' << escapeControlCharacters(name) << '\n';
    {
        const LogAmongText logLines(out, log ? kLogDebug : kLogWarning);
        DecisionPrinter printer(out, scenario);
        DryRun dryRun(scenario, printer);
        printer.setIdentity(dryRun.identity());
        const auto section = std::make_shared<const Dictionary>(Dictionary{{name, profile}});
        const auto backend = dryRun.makeBackend(section);
        if (!backend) {
            out << "  => no backend\n";
            return;
        }
        const Dictionary* settings = section->dictionary(name);
        const Array* clients = settings != nullptr ? settings->array("clients") : nullptr;
        if (clients != nullptr) printer.begin(*clients);
        backend->updateState();
        out << "  => " << nameOf(backend->state()) << '\n';
    }
    const SampledBackend sampled{name, profile, scenario};
    printOutcomes(out, sampled);
    printFilters(out, sampled);
}

}  // namespace

std::string_view nameOf(BackendState state) {
    switch (state) {
        case BackendState::waitingForUserInfo:
            return "waiting for user info";
        case BackendState::disabled:
            return "disabled";
        case BackendState::reporting:
            return "reporting";
        case BackendState::sampledOut:
            return "sampled out";
    }
    return "";
}

const Dictionary* sectionForSession(const Dictionary& bag, const Scenario& scenario) {
    if (!isBagFetchedFor(scenario.clientType)) return nullptr;
    return sectionForEnvironment(bag, scenario.environment);
}

std::string explainBag(const Dictionary& bag, const Scenario& scenario, bool log) {
    std::ostringstream out;
    if (!isBagFetchedFor(scenario.clientType)) {
        out << "=> client type " << scenario.clientType << " has no bag: its sessions have no backends\n";
        return out.str();
    }
    const std::string* version = bag.string("version");
    const auto refreshCycle = refreshCycleOf(bag);
    out << "bag \"" << textOrNull(bagNameForClientType(scenario.clientType)) << "\", version "
        << (version != nullptr ? escapeControlCharacters(*version) : "(none)") << ", used for "
        << (refreshCycle ? std::to_string(*refreshCycle) + " s" : "as long as its server says") << '\n'
        << "environment " << sectionNameForEnvironment(scenario.environment).value_or("(none)") << '\n';
    const Dictionary* section = nullptr;
    {
        const LogAmongText logLines(out, log ? kLogDebug : kLogWarning);
        section = sectionForSession(bag, scenario);
    }
    if (section == nullptr) {
        out << "=> the bag has no section for it: sessions have no backends\n";
        return out.str();
    }
    for (const auto& [name, profile] : *section)
        explainBackend(out, name, profile, scenario, log);
    return out.str();
}

}  // namespace telvora::bag
