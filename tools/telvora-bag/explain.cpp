// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/explain.h"

#include <sstream>

#include "backends/https_post_backend.h"
#include "config/storebag_fetcher.h"
#include "telvora-bag/narrator.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora::bag {

namespace {

std::ostream* logTarget = nullptr;  // a log sink is a plain function

// The daemon's log lines, among what is printed.
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
        logTarget = nullptr;
    }
    LogAmongText(const LogAmongText&) = delete;
    LogAmongText& operator=(const LogAmongText&) = delete;
};

// "0-4, 6-65535"
std::string categoriesThatPass(const TelvoraBackend& backend) {
    constexpr uint32_t kEnd = 65536;
    const auto passes = [&backend](uint32_t category) {
        const auto number = static_cast<uint16_t>(category);
        return category < kEnd && backend.isWhitelistedEvent(number) && !backend.isBlacklistedEvent(number);
    };
    std::string ranges;
    for (uint32_t first = 0; first < kEnd; ++first) {
        if (!passes(first)) continue;
        uint32_t last = first;
        while (passes(last + 1))
            ++last;
        ranges += (ranges.empty() ? "" : ", ") + std::to_string(first);
        if (last > first) ranges += "-" + std::to_string(last);
        first = last;
    }
    return ranges.empty() ? "none" : ranges;
}

std::string describe(const EventFilter& filter) {
    const char* action = filter.action == FilterAction::remove   ? " is removed"
                         : filter.action == FilterAction::sha256 ? " is hashed"
                                                                 : " is kept";
    std::string text = "\"" + std::string(filter.key) + "\"" + action;
    if (filter.method >= 0) text += " in reports of category " + std::to_string(filter.method);
    if (filter.status >= 0)
        text += (filter.method >= 0 ? " and type " : " in reports of type ") + std::to_string(filter.status);
    return text;
}

void printFilters(std::ostream& out, const Dictionary& entry) {
    std::vector<EventFilter> filters;
    if (const Array* array = entry.array("filters")) createFiltersFromArray(*array, filters);
    for (const EventFilter& filter : filters) {
        if (!filter.key.empty()) out << "  fields: " << describe(filter) << '\n';
    }
}

void printReporting(std::ostream& out, const HTTPSPostBackend& backend, const Narrator& narrator) {
    const Dictionary* entry = narrator.taken();
    out << "  categories that pass: " << categoriesThatPass(backend) << '\n';
    const std::string* realtime = entry != nullptr ? entry->string("realtime_post_url") : nullptr;
    out << "  posted to: " << backend.postURL().value_or("nowhere") << '\n';
    if (realtime != nullptr) out << "  realtime reports to: " << *realtime << '\n';
    if (narrator.isBatched()) {
        const int64_t threshold = entry != nullptr ? entry->integer("event_threshold").value_or(0) : 0;
        out << "  batched: report " << std::max<int64_t>(threshold, -1) + 2
            << " of a category sends those before it\n";
    } else {
        out << "  posted at once\n";
    }
    if (entry != nullptr && narrator.areFiltersUsed()) printFilters(out, *entry);
}

void explainBackend(std::ostream& out, Trial& trial, Narrator& narrator, const std::string& name,
                    const PropertyList& profile) {
    out << '\n' << name << '\n';
    const auto section = std::make_shared<const Dictionary>(Dictionary{{name, profile}});
    const auto backend = trial.makeBackend(section);
    if (!backend) {
        out << "  => no backend\n";
        return;
    }
    const auto* https = dynamic_cast<const HTTPSPostBackend*>(backend.get());
    if (https != nullptr) narrator.begin(*section->dictionary(name)->array("clients"));
    backend->updateState();
    out << "  => " << nameOf(backend->state()) << '\n';
    if (https != nullptr && backend->state() != BackendState::disabled) printReporting(out, *https, narrator);
}

}  // namespace

std::string_view nameOf(BackendState state) {
    switch (state) {
        case BackendState::waitingForUserInfo:
            return "waiting for user info: reports are held";
        case BackendState::disabled:
            return "disabled: reports are dropped";
        case BackendState::reporting:
            return "reporting";
        case BackendState::sampledOut:
            return "sampled out: reports are held until one promotes the backend";
    }
    return "";
}

std::string explainBag(const Dictionary& bag, const Circumstances& circumstances, bool log) {
    std::ostringstream out;
    const LogAmongText logLines(out, log ? kLogDebug : kLogWarning);
    const std::string* version = bag.string("version");
    const auto refreshCycle = refreshCycleOf(bag);
    out << "bag \"" << bagNameForClientType(circumstances.clientType).value_or("(none for this client type)")
        << "\", version " << (version != nullptr ? *version : "(none)") << ", used for "
        << (refreshCycle ? std::to_string(*refreshCycle) + " s" : "as long as its server says") << '\n'
        << "environment " << sectionNameForEnvironment(circumstances.environment).value_or("(none)") << '\n';
    const Dictionary* section = sectionForEnvironment(bag, circumstances.environment);
    if (section == nullptr) {
        out << "=> the bag has no section for it: sessions have no backends\n";
        return out.str();
    }
    Narrator narrator(out, circumstances);
    Trial trial(circumstances, narrator);
    narrator.setIdentity(trial.identity());
    for (const auto& [name, profile] : *section)
        explainBackend(out, trial, narrator, name, profile);
    return out.str();
}

}  // namespace telvora::bag
