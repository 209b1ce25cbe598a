// SPDX-License-Identifier: Apache-2.0
//
// Compares lint and explain with the daemon's own objects over random bags. Seeds are fixed.
#include <gmock/gmock.h>

#include <random>

#include "policy/client_entry.h"
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
        {"event_blacklist", {Array{1, "2"}, Array{true}}},
    };
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
    if (dice.roll(2)) {
        const auto known = dice.oneOf<const char*>(
            {"client", "service", "enabledSince", "expedite", "override_dnu", "locale_whitelist", "filters",
             "sampling_threshold", "override_sampling", "event_threshold", "extras_on_internal", "post_url",
             "realtime_post_url", "event_whitelist", "event_blacklist"});
        entry.set(known, odd(dice));
    }
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

// Sessions of the real daemon.
class Daemon {
  public:
    explicit Daemon(const Scenario& given) : world_(given.device) {
        world_.directory.write("config/Preferences/com.zandor.diagnosticsharing.plist",
                               test::serialized(Dictionary{{"Enabled", given.consent}}));
    }

    void serve(const Dictionary& bag) {
        world_.now += 10;  // the previous bag has expired
        world_.serveBag(bag);
    }

    std::shared_ptr<test::FakeConnection> connect(const Scenario& given) {
        world_.samplingFactor = given.draw;
        auto connection = world_.connect();
        Dictionary info = test::sessionInfoFor(1);
        info.set(kTelvoraSessionInfoRequireUserInfo, given.requireUserInfo);
        info.set(kTelvoraSessionInfoBatchEvent, given.batch);
        const Dictionary user = userInfoOf(given);
        connection->session().setSessionInfo(info, user.empty() ? std::nullopt : std::optional(user), {},
                                             false);
        connection->session().startConfigWithCompletionHandler([](const auto&) {});
        return connection;
    }

    // The outcome of one report of a new session, in explain's words.
    std::string fateOf(const Scenario& given, uint16_t category, int flag) {
        const auto connection = connect(given);
        connection->session().flushMessagesWithCompletion({});  // flushes the daemon's own first report
        const ReportTally before = tally();
        connection->session().sendMessageWithDictionary({{kTelvoraMessageParametersCategory, category},
                                                         {kTelvoraMessageParametersType, 2},
                                                         {kTelvoraMessageParametersFlag, flag}},
                                                        [](const auto&) {});
        const ReportTally after = tally();
        std::string outcome;
        if (after[ReportOutcome::held] > before[ReportOutcome::held]) {
            connection->session().flushMessagesWithCompletion({});
            outcome = "held; a flush " + end(after, "posts them to ", "drops them: ");
        } else {
            outcome = end(before, "posted at once to ", "dropped: ");
        }
        connection->invalidate();
        return outcome;
    }

    ReportTally tally() { return world_.ledger.totals()["httpPost"]; }

  private:
    std::string end(const ReportTally& before, const char* posted, const char* lost) {
        const std::map<ReportOutcome, const char*> reasons = {
            {ReportOutcome::disabled, "the backend is disabled"},
            {ReportOutcome::sampledOut, "the session is sampled out"},
            {ReportOutcome::noUserInfo, "there is no user info"},
            {ReportOutcome::noURL, "there is no URL to post to"}};
        const ReportTally after = tally();
        if (after[ReportOutcome::delivered] > before[ReportOutcome::delivered])
            return posted + world_.http.requests().back().url;
        for (const auto& [place, reason] : reasons)
            if (after[place] > before[place]) return std::string(lost) + reason;
        return "lost without a reason";
    }

    test::DaemonWorld world_;
};

TEST(Agreement, ExplainTellsTheFateOfReportsInTheDaemon) {
    constexpr unsigned kBags = 400;
    constexpr unsigned kBagsOfAWorld = 25;
    std::unique_ptr<Daemon> daemon;
    for (unsigned seed = 0; seed < kBags; ++seed) {
        Dice dice(seed);
        const Scenario given = randomCircumstances(dice, seed / kBagsOfAWorld % 4 != 0);
        const Dictionary bag = bagOf(randomClients(dice));
        if (seed % kBagsOfAWorld == 0) daemon = std::make_unique<Daemon>(given);
        daemon->serve(bag);

        const auto connection = daemon->connect(given);
        std::optional<uint16_t> passing;
        for (uint16_t category = 1; category < 8 && !passing; ++category) {
            const ReportTally before = daemon->tally();
            connection->session().sendMessageWithCategory(category, 2, {}, [](const auto&) {});
            const ReportTally after = daemon->tally();
            const auto isSame = [&](ReportOutcome outcome) { return after[outcome] == before[outcome]; };
            if (isSame(ReportOutcome::notWhitelisted) && isSame(ReportOutcome::blacklisted))
                passing = category;
        }
        connection->invalidate();
        if (!passing) continue;

        const std::string plain = daemon->fateOf(given, *passing, 0);
        std::string expected = "  reports: " + plain + "\n";
        const std::string realtime = daemon->fateOf(given, *passing, 1);
        if (realtime != plain) expected += "  realtime reports: " + realtime + "\n";
        const std::string promoting = daemon->fateOf(given, *passing, 2);
        if (promoting != plain) expected += "  promoting reports: " + promoting + "\n";
        ASSERT_THAT(explainBag(bag, given, false), HasSubstr(expected)) << seed;
    }
}

// The policies of a bag for sessions of many kinds, as text.
std::string policiesOf(const Array& clients, bool onlyWithUserInfo) {
    static UserDefaults defaults("/proc/nowhere", "/proc/nowhere");
    static const DeviceProperties properties(Dictionary{});
    static const DeviceIdentity identity(properties, defaults);
    static const Environment environment(defaults, identity);
    static test::FakeHttpClient http;
    std::string text;
    for (unsigned kind = 0; kind < 32; ++kind) {
        Dice dice(kind);
        const Scenario given = randomCircumstances(dice, !dice.roll(4));
        if (onlyWithUserInfo && !given.requireUserInfo) continue;
        const auto country = dice.oneOf<std::optional<std::string>>({"CH", "DE", std::nullopt});
        const Dictionary userInfo = userInfoOf(given);
        const std::optional<std::string> device = "phone";
        const std::optional<std::string> hardware = "Model1,1";
        const ReportingPolicy policy =
            nextPolicy({}, {.identity = identity,
                            .countryCode = [&country] { return country; },
                            .trace = nullptr,
                            .backend = "httpPost",
                            .clients = clients,
                            .userInfo = userInfo.empty() ? nullptr : &userInfo,
                            .requireUserInfo = given.requireUserInfo,
                            .frameworkVersion = dice.oneOf<std::array<uint8_t, 3>>({{8, 0, 0}, {3, 2, 0}}),
                            .samplingFactor = given.draw,
                            .consent = given.consent,
                            .productFamily = device,
                            .hardwareType = hardware});
        text += std::to_string(static_cast<int>(policy.state)) + (policy.batchEvents ? "b" : "-");
        text += std::to_string(policy.eventThreshold) + " " + std::to_string(policy.dnuType) +
                std::to_string(policy.extrasOnInternal) + policy.postURL.value_or("?") +
                policy.realtimePostURL.value_or("?");
        text += std::to_string(policy.samplingThreshold.value_or(-7)) +
                std::to_string(policy.overrideSampling.value_or(-7));
        for (uint16_t category = 0; category < 8; ++category) {
            text += policy.eventWhitelist && !listHoldsCategory(*policy.eventWhitelist, category) ? "w" : ".";
            text += policy.eventBlacklist && listHoldsCategory(*policy.eventBlacklist, category) ? "b" : ".";
            for (const int status : {0, 1, 3}) {
                Dictionary record{{"_method", unsigned{category}}, {"_status", status}, {"a", 1}, {"B", 1}};
                filterEvent(policy.filters, record);
                for (const char* key : {"a", "B"})
                    text += !record.contains(key) ? "r" : record.string(key) != nullptr ? "h" : "k";
            }
        }
        text += "\n";
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
constexpr unsigned kSeeds = 200;
#else
constexpr unsigned kSeeds = 2000;
#endif

TEST(Agreement, FindingsOfNoEffectAreTrue) {
    // By whether only sessions with user info are compared.
    std::map<bool, size_t> compared;
    for (unsigned seed = 0; seed < kSeeds; ++seed) {
        Dice dice(seed);
        const Array clients = randomClients(dice);
        std::map<bool, std::string> policies;
        for (const Finding& finding : lintBag(bagOf(clients))) {
            const auto changed = withoutIneffectivePart(clients, finding);
            if (!changed) continue;
            const bool onlyWithUserInfo =
                finding.text.find("only by sessions that require no user info") != std::string::npos;
            ++compared[onlyWithUserInfo];
            const auto [policy, isFirst] = policies.try_emplace(onlyWithUserInfo);
            if (isFirst) policy->second = policiesOf(clients, onlyWithUserInfo);
            ASSERT_TRUE(policiesOf(*changed, onlyWithUserInfo) == policy->second)
                << seed << " " << finding.path << " " << finding.text;
        }
    }
    EXPECT_GT(compared[false], kSeeds / 4);
    EXPECT_GT(compared[true], kSeeds / 80);
}

TEST(Agreement, LintFindsTheFiltersThatLeaveUserInfoAlone) {
    const auto count = [](const std::string& text, std::string_view part) {
        size_t found = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++found;
        return found;
    };
    size_t unprotected = 0;
    for (unsigned seed = 0; seed < 500; ++seed) {
        Dice dice(seed);
        Array filters{randomFilter(dice)};
        while (!dice.roll(3))
            filters.push_back(randomFilter(dice));
        const Dictionary bag = bagOf({Dictionary{{"locale_whitelist", "CH"},
                                                 {"filters", filters},
                                                 {"sampling_threshold", dice.oneOf<PropertyList>({0.2, 1})},
                                                 {"event_threshold", 5},
                                                 {"expedite", 0},
                                                 {"post_url", "https://one.example/"}}});
        std::string findings;
        for (const Finding& finding : lintBag(bag))
            findings += finding.text;
        Scenario given = randomCircumstances(dice, true);
        given.requireUserInfo = true;
        given.clientName = "a";
        const std::string text = explainBag(bag, given, false);
        for (const char* left : {"batched reports have it hashed", "batched reports have it in clear"}) {
            ASSERT_EQ(count(text, left), count(findings, left)) << seed << text << findings;
            unprotected += count(text, left);
        }
    }
    EXPECT_GT(unprotected, 100u);
}

}  // namespace
}  // namespace telvora::bag
