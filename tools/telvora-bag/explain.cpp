// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/explain.h"

#include <sstream>

#include "config/storebag_fetcher.h"
#include "policy/absent_text.h"
#include "telvora-bag/narrator.h"
#include "telvora-bag/samples.h"
#include "util/log.h"

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
                    const Circumstances& circumstances, bool log) {
    out << '\n' << name << '\n';
    {
        const LogAmongText logLines(out, log ? kLogDebug : kLogWarning);
        Narrator narrator(out, circumstances);
        Trial trial(circumstances, narrator);
        narrator.setIdentity(trial.identity());
        const auto section = std::make_shared<const Dictionary>(Dictionary{{name, profile}});
        const auto backend = trial.makeBackend(section);
        if (!backend) {
            out << "  => no backend\n";
            return;
        }
        const Dictionary* settings = section->dictionary(name);
        const Array* clients = settings != nullptr ? settings->array("clients") : nullptr;
        if (clients != nullptr) narrator.begin(*clients);
        backend->updateState();
        out << "  => " << nameOf(backend->state()) << '\n';
    }
    const SampledBackend sampled{name, profile, circumstances};
    printFates(out, sampled);
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

const Dictionary* sectionForSession(const Dictionary& bag, const Circumstances& circumstances) {
    if (!isBagFetchedFor(circumstances.clientType)) return nullptr;
    return sectionForEnvironment(bag, circumstances.environment);
}

std::string explainBag(const Dictionary& bag, const Circumstances& circumstances, bool log) {
    std::ostringstream out;
    if (!isBagFetchedFor(circumstances.clientType)) {
        out << "=> client type " << circumstances.clientType
            << " has no bag: its sessions have no backends\n";
        return out.str();
    }
    const std::string* version = bag.string("version");
    const auto refreshCycle = refreshCycleOf(bag);
    out << "bag \"" << textOrNull(bagNameForClientType(circumstances.clientType)) << "\", version "
        << (version != nullptr ? *version : "(none)") << ", used for "
        << (refreshCycle ? std::to_string(*refreshCycle) + " s" : "as long as its server says") << '\n'
        << "environment " << sectionNameForEnvironment(circumstances.environment).value_or("(none)") << '\n';
    const Dictionary* section = nullptr;
    {
        const LogAmongText logLines(out, log ? kLogDebug : kLogWarning);
        section = sectionForSession(bag, circumstances);
    }
    if (section == nullptr) {
        out << "=> the bag has no section for it: sessions have no backends\n";
        return out.str();
    }
    for (const auto& [name, profile] : *section)
        explainBackend(out, name, profile, circumstances, log);
    return out.str();
}

}  // namespace telvora::bag
