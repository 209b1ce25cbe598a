// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/samples.h"

#include <algorithm>

#include "telvora-bag/backend_run.h"
#include "telvora-bag/filter_reach.h"
#include "telvora-bag/texts.h"

namespace telvora::bag {

namespace {

constexpr uint32_t kCategories = 65536;
constexpr uint16_t kType = 2;
constexpr SendFlag kPlain{0};
constexpr SendFlag kRealtime{1};
constexpr SendFlag kPromoting{2};

bool passes(const TelvoraBackend& backend, uint32_t category) {
    const auto number = static_cast<uint16_t>(category);
    return category < kCategories && backend.isWhitelistedEvent(number) &&
           !backend.isBlacklistedEvent(number);
}

// "0-4, 6-65535"
std::string categoriesThatPass(const TelvoraBackend& backend) {
    std::string ranges;
    for (uint32_t first = 0; first < kCategories; ++first) {
        if (!passes(backend, first)) continue;
        uint32_t last = first;
        while (passes(backend, last + 1))
            ++last;
        ranges += (ranges.empty() ? "" : ", ") + std::to_string(first);
        if (last > first) ranges += "-" + std::to_string(last);
        first = last;
    }
    return ranges.empty() ? "none" : ranges;
}

// A category that passes; one that clients use, if possible.
std::optional<uint16_t> categoryThatPasses(const TelvoraBackend& backend) {
    for (uint32_t category = 1; category <= kCategories; ++category) {
        const auto number = static_cast<uint16_t>(category);  // 0 comes last
        if (passes(backend, number)) return number;
    }
    return std::nullopt;
}

size_t lossesIn(const ReportTally& tally) {
    size_t losses = 0;
    for (size_t i = kFirstLoss; i < kReportOutcomes; ++i)
        losses += tally.outcomes[i];
    return losses;
}

std::string lossIn(const ReportTally& tally) {
    for (size_t i = kFirstLoss; i < kReportOutcomes; ++i)
        if (tally.outcomes[i] > 0) return reasonOf(static_cast<ReportOutcome>(i));
    return "";
}

struct Outcome {
    std::string text;
    bool held = false;
};

Outcome outcomeOf(const SampledBackend& sampled, uint16_t category, SendFlag flag) {
    BackendRun run(sampled.name, sampled.profile, sampled.scenario);
    std::string url;
    run.onPost = [&url](const BackendRun::Post& post) { url = post.url; };
    run.send(category, kType, {}, flag);
    if (run.tally()[ReportOutcome::held] == 0) {
        return url.empty() ? Outcome{"dropped: " + lossIn(run.tally())}
                           : Outcome{"posted at once to " + escapeControlCharacters(url)};
    }
    run.flush();
    const std::string flushed =
        url.empty() ? "drops them: " + lossIn(run.tally()) : "posts them to " + escapeControlCharacters(url);
    return {"held; a flush " + flushed, true};
}

// The number of reports of one category that make the daemon post the batch.
std::string batchLimit(const SampledBackend& sampled, uint16_t category) {
    constexpr size_t kMaxReports = 1000;
    BackendRun run(sampled.name, sampled.profile, sampled.scenario);
    bool posted = false;
    run.onPost = [&posted](const BackendRun::Post&) { posted = true; };
    for (size_t number = 1; number <= kMaxReports; ++number) {
        run.send(category, kType);
        if (!posted && lossesIn(run.tally()) == 0) continue;
        return "report " + std::to_string(number) + " of a category " + (posted ? "sends" : "drops") +
               " those before it";
    }
    return "more than " + std::to_string(kMaxReports) + " reports of a category are held";
}

std::string describe(const EventFilter& filter) {
    const char* action = filter.action == FilterAction::remove   ? " is removed"
                         : filter.action == FilterAction::sha256 ? " is hashed"
                                                                 : " is kept";
    std::string text = inQuotes(filter.key) + action;
    if (filter.method >= 0) text += " in reports of category " + std::to_string(filter.method);
    if (filter.status >= 0)
        text += (filter.method >= 0 ? " and type " : " in reports of type ") + std::to_string(filter.status);
    return text;
}

// The protection of user info under the filter's key in posted reports.
FilterAction actionOnUserInfo(const SampledBackend& sampled, const EventFilter& filter,
                              const FilterSubject& subject) {
    const std::string key(filter.key);
    Scenario scenario = sampled.scenario;
    Dictionary given = userInfoOf(scenario);
    if (given.string(key) == nullptr) {
        scenario.userInfo.set(key, "value");
        given.set(key, "value");
    }
    BackendRun run(sampled.name, sampled.profile, scenario);
    FilterAction least = FilterAction::remove;
    run.onPost = [&](const BackendRun::Post& post) {
        for (const Dictionary& event : post.events) {
            const PropertyList* left = event.find(key);
            const FilterAction action = left == nullptr             ? FilterAction::remove
                                        : *left == *given.find(key) ? FilterAction::keep
                                                                    : FilterAction::sha256;
            if (isStricter(least, action)) least = action;
        }
    };
    run.send(subject.category, subject.type);
    run.send(subject.category, subject.type, {}, kPromoting);
    run.flush();
    return least;
}

}  // namespace

void printOutcomes(std::ostream& out, const SampledBackend& sampled) {
    const BackendRun run(sampled.name, sampled.profile, sampled.scenario);
    const TelvoraBackend& backend = *run.backend();
    if (run.isHandedOn()) {
        out << "  reports: passed to the metrics adaptor, if the device has one\n";
        return;
    }
    const bool decidedByLists =
        backend.policy().eventWhitelist != nullptr || backend.policy().eventBlacklist != nullptr;
    if (decidedByLists) out << "  categories that pass: " << categoriesThatPass(backend) << '\n';
    const auto category = categoryThatPasses(backend);
    if (!category) return;
    const Outcome plain = outcomeOf(sampled, *category, kPlain);
    const Outcome realtime = outcomeOf(sampled, *category, kRealtime);
    const Outcome promoting = outcomeOf(sampled, *category, kPromoting);
    out << "  reports: " << plain.text << '\n';
    if (realtime.text != plain.text) out << "  realtime reports: " << realtime.text << '\n';
    if (promoting.text != plain.text) out << "  promoting reports: " << promoting.text << '\n';
    if (plain.held) out << "  batches: " << batchLimit(sampled, *category) << '\n';
}

void printFilters(std::ostream& out, const SampledBackend& sampled) {
    const BackendRun run(sampled.name, sampled.profile, sampled.scenario);
    const std::vector<EventFilter>& filters = run.backend()->policy().filters;
    for (size_t i = 0; i < filters.size(); ++i) {
        const EventFilter& filter = filters[i];
        if (filter.key.empty()) continue;
        out << "  fields: " << describe(filter) << '\n';
        const auto subject =
            subjectOf(filters, i, [&run](uint16_t category) { return passes(*run.backend(), category); });
        if (!subject || !isUserInfoKey(filter.key)) continue;
        const FilterAction left = actionOnUserInfo(sampled, filter, *subject);
        if (!isStricter(actionOn(filters, filter.key, subject), left)) continue;
        out << "    but not user info: batched reports have it "
            << (left == FilterAction::sha256 ? "hashed" : "in clear") << '\n';
    }
}

}  // namespace telvora::bag
