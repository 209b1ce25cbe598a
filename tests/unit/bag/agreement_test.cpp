// SPDX-License-Identifier: Apache-2.0
//
// Compares replays with the daemon, and lint with replays, over random bags. Seeds are fixed.
#include <gmock/gmock.h>

#include <random>
#include <sstream>

#include "json/report_json.h"
#include "telvora-bag/backend_run.h"
#include "telvora-bag/explain.h"
#include "telvora-bag/lint.h"
#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "tests/support/signed_document.h"

namespace telvora::bag {
namespace {

using testing::HasSubstr;

class Dice {
  public:
    explicit Dice(unsigned seed) : engine_(seed) {}

    bool roll(unsigned sides) { return engine_() % sides == 0; }
    template <typename T>
    T oneOf(const std::vector<T>& choices) {
        return choices[engine_() % choices.size()];
    }
    Array some(const Array& choices, size_t atMost) {
        Array chosen;
        for (size_t count = engine_() % (atMost + 1); count > 0; --count)
            chosen.push_back(oneOf(choices));
        return chosen;
    }

  private:
    std::mt19937 engine_;
};

PropertyList odd(Dice& dice) {
    return dice.oneOf<PropertyList>({true, false, 0, 1, -1, 2.5, 0.25, "", "1", "0.5", "5x", "x", Data{"1"},
                                     Array{}, Array{"5", true, 1}, Dictionary{}});
}

Dictionary randomFilter(Dice& dice) {
    Dictionary filter{{"key", dice.oneOf<PropertyList>({"a", "A", "b", "b", ""})},
                      {"action", dice.oneOf<PropertyList>({"remove", "sha256", "keep"})}};
    if (dice.roll(2)) filter.set("method", dice.oneOf<PropertyList>({-1, 0, 0, 5, 6, true}));
    if (dice.roll(3)) filter.set("status", dice.oneOf<PropertyList>({-1, 0, 3, "3"}));
    return filter;
}

Dictionary randomEntry(Dice& dice) {
    const std::vector<std::pair<const char*, Array>> keys = {
        {"client", {"a", "b,A", "a,,b", ""}},
        {"service", {"net", "network,x", "n"}},
        {"enabledSince", {"3.1", "8", "8.0.1", "300"}},
        {"expedite", {0, 1}},
        {"override_dnu", {0, 1}},
        {"device_whitelist", {"phone", "x"}},
        {"device_blacklist", {"Model", "x"}},
        {"per_country_sampling_thresholds",
         {Array{Dictionary{{"country", Array{"DE", "CH"}}, {"threshold", 0.2}}},
          Array{Dictionary{{"country", Array{"ch"}}, {"threshold", 1}},
                Dictionary{{"country", Array{"CH"}}}}}},
        {"override_sampling", {0.1, 0.35, 1}},
        {"custom_clientId", {false}},
        {"extras_on_internal", {1, true}},
        {"realtime_post_url", {"https://now.example/"}},
        {"event_blacklist", {Array{1, "2"}, Array{true}}}};
    Dictionary entry{
        {"locale_whitelist", dice.oneOf<PropertyList>({"CH", "de,ch", "DE"})},
        {"filters", dice.some({randomFilter(dice), randomFilter(dice), randomFilter(dice)}, 3)},
        {"sampling_threshold", dice.oneOf<PropertyList>({0.2, 0.5, 1, 1})},
        {"event_threshold", dice.oneOf<PropertyList>({0, 1, 3, "3", -2, true})},
        {"post_url", dice.oneOf<PropertyList>({"https://one.example/", "https://two.example/"})}};
    for (const auto& [key, values] : keys)
        if (dice.roll(5)) entry.set(key, dice.oneOf(values));
    if (dice.roll(4)) entry.set("event_whitelist", dice.some({1, 2, "3", 4.0, true, "x"}, 4));
    if (dice.roll(3)) entry.erase(dice.oneOf<const char*>({"post_url", "filters", "locale_whitelist"}));
    if (dice.roll(2))
        entry.set(
            dice.oneOf<const char*>({"client", "service", "enabledSince", "expedite", "override_dnu",
                                     "locale_whitelist", "filters", "sampling_threshold", "override_sampling",
                                     "event_threshold", "extras_on_internal", "post_url", "realtime_post_url",
                                     "event_whitelist", "event_blacklist"}),
            odd(dice));
    return entry;
}

Array randomClients(Dice& dice) {
    Array clients{randomEntry(dice)};
    while (dice.roll(2) && clients.size() < 4)
        clients.push_back(dice.roll(9) ? PropertyList("no entry") : randomEntry(dice));
    return clients;
}

Dictionary bagOf(Array clients) {
    const Dictionary section{{"httpPost", Dictionary{{"clients", std::move(clients)}}}};
    return {{"version", "1"}, {"refresh_cycle", 1}, {"release", section}};
}

Scenario randomCircumstances(Dice& dice, bool consent) {
    using Text = std::optional<std::string>;
    return {.clientType = 7,
            .clientName = dice.oneOf<Text>({"a", "B", "", std::nullopt}),
            .serviceName = dice.oneOf<Text>({"network", "x", std::nullopt}),
            .requireUserInfo = !dice.roll(4),
            .batch = dice.roll(2),
            .device = {{"DeviceName", "phone"}, {"ProductType", "Model1,1"}},
            .country = "CH",
            .consent = consent,
            .draw = dice.oneOf<double>({0.3, 0.3, 0.6})};
}

// Reports of these categories, with each type and each flag.
std::string reportsOf(const std::vector<int>& categories, const std::vector<int>& types,
                      const std::vector<int>& flags) {
    std::string lines;
    for (const int category : categories)
        for (const int type : types)
            for (const int flag : flags)
                lines += "{\"category\": " + std::to_string(category) +
                         ", \"type\": " + std::to_string(type) + ", \"flag\": " + std::to_string(flag) +
                         R"(, "payload": {"a": 1, "B": "b"}})" + "\n";
    return lines;
}

std::string replayOf(const Array& clients, const Scenario& given, const std::string& reports) {
    std::istringstream lines(reports);
    return replayReports(bagOf(clients), given, lines).value();
}

// The fate of the reports in a session of the real daemon, in the words of a replay.
std::vector<std::string> fatesInDaemon(const Array& clients, const Scenario& given,
                                       const std::string& reports) {
    test::DaemonWorld world(given.device);
    world.directory.write("config/Preferences/com.zandor.diagnosticsharing.plist",
                          test::serialized(Dictionary{{"Enabled", given.consent}}));
    world.samplingFactor = given.draw;
    world.serveBag(bagOf(clients));
    const auto connection = world.connect();
    TelvoradSession& session = connection->session();
    const Dictionary user = userInfoOf(given);
    session.setSessionInfo(Dictionary::merged(test::sessionInfoFor(1),
                                              {{kTelvoraSessionInfoRequireUserInfo, given.requireUserInfo},
                                               {kTelvoraSessionInfoBatchEvent, given.batch}}),
                           user.empty() ? std::nullopt : std::optional(user), {}, false);
    session.startConfigWithCompletionHandler([](const auto&) {});
    session.flushMessagesWithCompletion({});  // flushes the daemon's own first report
    const auto tally = [&world] { return world.ledger.totals()["httpPost"]; };
    const ReportTally before = tally();
    const size_t requestsBefore = world.http.requestCount();
    std::istringstream lines(reports);
    size_t sent = 0;
    for (std::string line; std::getline(lines, line); ++sent)
        session.sendMessageWithDictionary(*messageOfJson(line), [](const auto&) {});
    session.flushMessagesWithCompletion({});
    const ReportTally after = tally();
    const auto count = [&](ReportOutcome outcome) {
        return std::to_string(after[outcome] - before[outcome]);
    };
    std::vector<std::string> fates{"  " + count(ReportOutcome::delivered) + " of " + std::to_string(sent) +
                                   " reports posted, in " +
                                   std::to_string(world.http.requestCount() - requestsBefore) + " posts\n"};
    for (size_t i = kFirstLoss; i < kReportOutcomes; ++i) {
        const auto cause = static_cast<ReportOutcome>(i);
        if (count(cause) != "0") fates.push_back("  " + count(cause) + " dropped: " + reasonOf(cause) + "\n");
    }
    return fates;
}

TEST(Agreement, ReplayTellsTheFateOfReportsInTheDaemon) {
    const std::string reports = reportsOf({1, 2, 5, 5, 5, 5, 3}, {2}, {0, 1, 0, 2});
    for (unsigned seed = 0; seed < 400; ++seed) {
        Dice dice(seed);
        const Scenario given = randomCircumstances(dice, !dice.roll(4));
        const Array clients = randomClients(dice);
        const std::string replay = replayOf(clients, given, reports);
        for (const std::string& fate : fatesInDaemon(clients, given, reports))
            ASSERT_THAT(replay, HasSubstr(fate)) << seed;
    }
}

// Replays of a bag in sessions of many kinds.
std::string effectOf(const Array& clients, bool onlyWithUserInfo) {
    static const std::string reports =
        reportsOf({0, 1, 2, 3, 4, 5, 6}, {0, 1, 3}, {0}) + reportsOf({5}, {1}, {1, 2});
    std::string text;
    for (unsigned kind = 0; kind < 16; ++kind) {
        Dice dice(kind);
        const Scenario given = randomCircumstances(dice, !dice.roll(4));
        if (given.requireUserInfo || !onlyWithUserInfo) text += replayOf(clients, given, reports);
    }
    return text;
}

// The entries without the part that a finding calls ineffective. `std::nullopt` for other findings.
std::optional<Array> withoutIneffectivePart(Array clients, const Finding& finding) {
    constexpr std::string_view kCountsAs = "; counts as ";
    const std::string beginning = "release/httpPost/clients[";
    if (!finding.path.starts_with(beginning)) return std::nullopt;
    const size_t end = finding.path.find(']');
    const std::string key = finding.path.substr(std::min(end + 2, finding.path.size()));
    PropertyList& element = clients[std::stoul(finding.path.substr(beginning.size()))];
    const auto says = [&finding](const char* text) { return finding.text.find(text) != std::string::npos; };
    if (key.empty() && (says("is never used:") || says("only by sessions that require no user info"))) {
        element = "gone";
        return clients;
    }
    Dictionary entry = element.getIf<Dictionary>() != nullptr ? *element.getIf<Dictionary>() : Dictionary();
    const size_t countsAs = finding.text.find(kCountsAs);
    if (key.starts_with("filters[") && key.back() == ']' && says("is never reached")) {
        Array filters = *entry.array("filters");
        filters[std::stoul(key.substr(8))] = "gone";
        entry.set("filters", std::move(filters));
    } else if (key.find_first_of("/[") != std::string::npos) {
        return std::nullopt;
    } else if (says("is never read") || says("; counts as absent")) {
        entry.erase(key);
    } else if (countsAs != std::string::npos) {
        entry.set(key, std::stod(finding.text.substr(countsAs + kCountsAs.size())));
    } else {
        return std::nullopt;
    }
    element = std::move(entry);
    return clients;
}

// A sanitizer takes twenty times as long for each bag, and sees the same code in fewer of them.
#ifdef TELVORA_SANITIZED
constexpr unsigned kSeeds = 50;
#else
constexpr unsigned kSeeds = 200;
#endif

TEST(Agreement, FindingsOfNoEffectAreTrue) {
    // By whether only sessions with user info are compared.
    std::map<bool, size_t> compared;
    for (unsigned seed = 0; seed < kSeeds; ++seed) {
        Dice dice(seed);
        const Array clients = randomClients(dice);
        std::map<bool, std::string> effects;
        for (const Finding& finding : lintBag(bagOf(clients))) {
            const auto changed = withoutIneffectivePart(clients, finding);
            if (!changed) continue;
            const bool onlyWithUserInfo =
                finding.text.find("only by sessions that require no user info") != std::string::npos;
            ++compared[onlyWithUserInfo];
            const auto [effect, isFirst] = effects.try_emplace(onlyWithUserInfo);
            if (isFirst) effect->second = effectOf(clients, onlyWithUserInfo);
            ASSERT_EQ(effectOf(*changed, onlyWithUserInfo), effect->second)
                << seed << " " << finding.path << " " << finding.text;
        }
    }
    EXPECT_GT(compared[false], kSeeds / 4);
    EXPECT_GT(compared[true], kSeeds / 80);
}

}  // namespace
}  // namespace telvora::bag
