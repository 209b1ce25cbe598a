// SPDX-License-Identifier: Apache-2.0
//
// Compares replays with the daemon, and lint with replays, over random bags. Seeds are fixed.
#include <gmock/gmock.h>

#include <random>
#include <regex>

#include "json/json_reader.h"
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

  private:
    std::mt19937 engine_;
};

// The values of an entry's keys. A key with "?" is in some entries only.
constexpr char kValues[] = R"({
    "client?": ["a", "b,A", "a,,b", ""], "service?": ["net", "network,x", "n"],
    "enabledSince?": ["3.1", "8", "8.0.1", "300"], "expedite?": [0, 1], "override_dnu?": [0, 1],
    "locale_whitelist": ["CH", "de,ch", "DE"], "device_whitelist?": ["phone", "x"], "device_blacklist?": ["Model", "x"],
    "sampling_threshold": [0.2, 0.5, 1, 1], "override_sampling?": [0.1, 0.35, 1],
    "per_country_sampling_thresholds?": [[{"country": ["DE", "CH"], "threshold": 0.2}],
                                         [{"country": ["ch"], "threshold": 1}, {"country": ["CH"]}]],
    "event_threshold": [0, 1, 3, "3", -2, true], "custom_clientId?": [false], "extras_on_internal?": [1, true],
    "post_url": ["https://one.example/", "https://two.example/"], "realtime_post_url?": ["https://now.example/"],
    "event_whitelist?": [[], [1], [2, "3"], [4.0, true, "x"], [1, 2, "3", 4.0]], "event_blacklist?": [[1, "2"], [true]],
    "filters": [[]]})";
constexpr char kOddValues[] =
    R"([true, false, 0, 1, -1, 2.5, 0.25, "", "1", "0.5", "5x", "x", [], ["5", true, 1], {}])";

PropertyList randomFilter(Dice& dice) {
    Dictionary filter{{"key", dice.oneOf<PropertyList>({"a", "A", "b", "b", ""})},
                      {"action", dice.oneOf<PropertyList>({"remove", "sha256", "keep"})}};
    if (dice.roll(2)) filter.set("method", dice.oneOf<PropertyList>({-1, 0, 0, 5, 6, true}));
    if (dice.roll(3)) filter.set("status", dice.oneOf<PropertyList>({-1, 0, 3, "3"}));
    return filter;
}

Dictionary randomEntry(Dice& dice) {
    static const Dictionary values = *parseJson(kValues).value().getIf<Dictionary>();
    static const Array odd = *parseJson(kOddValues).value().getIf<Array>();
    Dictionary entry;
    std::vector<std::string> keys;
    for (const auto& [key, choices] : values) {
        keys.push_back(key.substr(0, key.find('?')));
        if (keys.back() == key || dice.roll(5)) entry.set(keys.back(), dice.oneOf(*choices.getIf<Array>()));
    }
    Array filters;
    while (!dice.roll(3))
        filters.push_back(randomFilter(dice));
    entry.set("filters", std::move(filters));
    if (dice.roll(3)) entry.erase(dice.oneOf<const char*>({"post_url", "filters", "locale_whitelist"}));
    if (dice.roll(2)) entry.set(dice.oneOf(keys), dice.oneOf(odd));
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

// A report for each of these categories, types and flags.
std::string reportsOf(const std::vector<std::array<int, 3>>& reports) {
    std::ostringstream lines;
    for (const auto& [category, type, flag] : reports)
        lines << "{\"category\": " << category << ", \"type\": " << type << ", \"flag\": " << flag
              << ", \"payload\": {\"a\": 1, \"B\": \"b\"}}\n";
    return lines.str();
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
    const std::string reports = reportsOf({{1, 2, 0},
                                           {2, 2, 0},
                                           {5, 2, 0},
                                           {5, 2, 1},
                                           {5, 2, 0},
                                           {1, 2, 0},
                                           {5, 2, 0},
                                           {5, 2, 0},
                                           {3, 2, 2},
                                           {5, 2, 0},
                                           {6, 2, 3},
                                           {5, 2, 0}});
    for (unsigned seed = 0; seed < 150; ++seed) {
        Dice dice(seed);
        const Scenario given = randomCircumstances(dice, !dice.roll(4));
        const Array clients = randomClients(dice);
        const std::string replay = replayOf(clients, given, reports);
        for (const std::string& fate : fatesInDaemon(clients, given, reports))
            ASSERT_THAT(replay, HasSubstr(fate)) << seed;
    }
}

// Replays of a bag in sessions of many kinds.
std::string effectOf(const Array& clients) {
    std::vector<std::array<int, 3>> reports{{5, 1, 1}, {5, 1, 2}};
    for (int category = 0; category < 7; ++category)
        for (const int type : {0, 1, 3})
            reports.push_back({category, type, 0});
    const std::string lines = reportsOf(reports);
    std::string text;
    for (unsigned kind = 0; kind < 16; ++kind) {
        Dice dice(kind);
        text += replayOf(clients, randomCircumstances(dice, !dice.roll(4)), lines);
    }
    return text;
}

// The entries without the part that a finding calls ineffective. `std::nullopt` for other findings.
std::optional<Array> withoutIneffectivePart(Array clients, const Finding& finding) {
    static const std::regex path(R"(release/httpPost/clients\[(\d+)\](?:/(\w+)(?:\[(\d+)\])?)?)");
    static const std::regex countsAs(".*; counts as ([-0-9.]+)");
    std::smatch at, number;
    if (!std::regex_match(finding.path, at, path)) return std::nullopt;
    const auto says = [&finding](const char* text) { return finding.text.find(text) != std::string::npos; };
    PropertyList& element = clients[std::stoul(at[1])];
    Dictionary entry = element.getIf<Dictionary>() != nullptr ? *element.getIf<Dictionary>() : Dictionary();
    const std::string key = at[2];
    if (key.empty() && says("is never used:")) {
        element = "gone";
        return clients;
    }
    if (key == "filters" && at[3].matched && says("is never reached")) {
        Array filters = *entry.array(key);
        filters[std::stoul(at[3])] = "gone";
        entry.set(key, std::move(filters));
    } else if (key.empty() || at[3].matched) {
        return std::nullopt;
    } else if (says("is never read") || says("; counts as absent")) {
        entry.erase(key);
    } else if (std::regex_match(finding.text, number, countsAs)) {
        entry.set(key, std::stod(number[1]));
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
constexpr unsigned kSeeds = 300;
#endif

TEST(Agreement, FindingsOfNoEffectAreTrue) {
    size_t compared = 0;
    for (unsigned seed = 0; seed < kSeeds; ++seed) {
        Dice dice(seed);
        const Array clients = randomClients(dice);
        const std::string effect = effectOf(clients);
        for (const Finding& finding : lintBag(bagOf(clients))) {
            const auto changed = withoutIneffectivePart(clients, finding);
            if (!changed) continue;
            ++compared;
            ASSERT_EQ(effectOf(*changed), effect) << seed << finding.path << finding.text;
        }
    }
    EXPECT_GT(compared, kSeeds / 4);
}

}  // namespace
}  // namespace telvora::bag
