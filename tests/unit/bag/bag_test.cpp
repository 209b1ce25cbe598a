// SPDX-License-Identifier: Apache-2.0
//
// Explain, replays and lint. The cases are in the text files of this folder.
#include <gmock/gmock.h>

#include <random>
#include <regex>
#include <sstream>

#include "json/json_reader.h"
#include "json/report_json.h"
#include "telvora-bag/backend_run.h"
#include "telvora-bag/explain.h"
#include "telvora-bag/lint.h"
#include "telvora/keys.h"
#include "tests/support/bags.h"
#include "tests/support/daemon_world.h"
#include "tests/support/signed_document.h"
#include "util/base64.h"

namespace telvora::bag {
namespace {

using test::bagWithClients;
using testing::HasSubstr;
using testing::StartsWith;
using Lines = std::vector<std::string>;

Dictionary json(std::string_view text) {
    return *parseJson(text).value().getIf<Dictionary>();
}

std::string caseFile(const std::string& name) {
    return test::readFile(std::filesystem::path(TELVORA_BAG_CASES) / name);
}

// The cases of a file: a line and the lines that are expected for it, up to an empty line. "#": a comment.
std::vector<std::pair<std::string, Lines>> casesOf(const std::string& name) {
    std::vector<std::pair<std::string, Lines>> cases;
    std::istringstream file(caseFile(name));
    bool isNew = true;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#")) continue;
        if (!line.empty() && isNew) cases.emplace_back(line, Lines());
        if (!line.empty() && !isNew) cases.back().second.push_back(line);
        isNew = line.empty();
    }
    EXPECT_FALSE(cases.empty()) << name;
    return cases;
}

const char kReports[] = R"({"category": 5, "type": 1, "payload": {"ip": "::1", "user": "x"}}
{"category": 5, "type": 2}
{"category": 5, "type": 1}

{"category": 6, "type": 1, "payload": {"IP": "::1"}}
{"category": 5, "type": 1, "flag": 1}
{"category": 7, "type": 1, "flag": 2}
)";

Scenario scenario(bool consent) {
    return {.clientType = 7,
            .clientName = "client",
            .serviceName = "service",
            .device = {{"DeviceName", "phone"}, {"ProductType", "Model1,1"}},
            .country = "CH",
            .consent = consent,
            .draw = 0.3};
}

const char kClient[] =
    R"({"client": "client", "locale_whitelist": "DE,ch", "filters": [], "sampling_threshold": 0.5,
    "event_threshold": 49, "post_url": "https://reports.example/"})";

// The entries of a case: changes to an entry that reports, or to several of them for all clients.
Array clientsOf(const std::string& text) {
    const PropertyList changes = parseJson(text.substr(text.find_first_of("[{"))).value();
    const Dictionary* one = changes.getIf<Dictionary>();
    if (one != nullptr) return {Dictionary::merged(json(kClient), Dictionary(*one))};
    Array clients;
    for (const PropertyList& each : *changes.getIf<Array>()) {
        Dictionary client = json(kClient);
        client.erase("client");
        if (!clients.empty()) client.set("sampling_threshold", 0.2);  // shows which entry counts
        client.merge(*each.getIf<Dictionary>());
        clients.push_back(std::move(client));
    }
    return clients;
}

std::string replayOf(const Dictionary& bag, const Scenario& given, const std::string& reports) {
    std::istringstream lines(reports);
    return replayReports(bag, given, lines).value();
}

TEST(Explain, GivesTheReasonsAndTheFateOfReports) {
    for (const auto& [changes, texts] : casesOf("explain_entry.txt")) {
        Scenario given = scenario(!changes.starts_with("without consent"));
        given.batch = changes.starts_with("batching");
        const Dictionary bag = bagWithClients(clientsOf(changes));
        const std::string found = explainBag(bag, given, true) + replayOf(bag, given, kReports);
        for (const std::string& text : texts)
            EXPECT_THAT(found, HasSubstr(text + "\n")) << changes;
    }
}

TEST(Explain, ShowsAWholeBag) {
    const Dictionary bag = json(caseFile("explain_bag.json"));
    Scenario given = scenario(true);
    given.environment = EnvironmentType::seed;
    EXPECT_EQ(explainBag(bag, given, false), caseFile("explain_bag.txt"));

    const std::string replay = replayOf(bag, given, kReports);
    EXPECT_THAT(replay, HasSubstr("httpPost\n  6 of 6 reports posted, in 6 posts\n"));
    EXPECT_THAT(replay, HasSubstr("vodex\n  6 of 6 reports passed to the metrics adaptor\n"));
    EXPECT_THAT(replay, HasSubstr("  \"IP\" removed from 1 reports\n  \"ip\" removed from 1 reports\n"
                                  "  \"user\" hashed in 1 reports\n"));
    std::istringstream broken("{\"category\": 1, \"type\": 1}\n{\"category\": 1}\n");
    EXPECT_EQ(replayReports(bag, given, broken).error(), "line 2: \"type\" is missing");

    given.clientName.reset();
    given.serviceName.reset();
    EXPECT_THAT(explainBag(bag, given, false),
                HasSubstr("  => waiting for user info\n"
                          "  reports: held; a flush drops them: there is no user info\n"
                          "  batches: report 51 of a category drops those before it\n"));
    given.requireUserInfo = false;
    EXPECT_THAT(explainBag(bag, given, false), HasSubstr("clients[0]: serves the session"));
    given.clientType = 1;
    EXPECT_THAT(explainBag(bag, given, false), StartsWith("bag \"(null)\", version 1,"));
    given.environment = EnvironmentType::none;
    EXPECT_THAT(explainBag(bag, given, false), HasSubstr("=> the bag has no section for it"));
    given.clientType = 0;
    EXPECT_EQ(explainBag(bag, given, false), "=> client type 0 has no bag: its sessions have no backends\n");
}

// The findings, without the common beginning of their paths.
Lines lines(const std::vector<Finding>& findings, std::string_view beginning = "") {
    Lines all;
    for (const Finding& f : findings) {
        EXPECT_TRUE(f.path.starts_with(beginning)) << f.path;
        all.push_back(f.path.substr(beginning.size()) +
                      (f.severity == Severity::error ? ": error: " : ": warning: ") + f.text);
    }
    return all;
}

TEST(Lint, FindsWhatIsWrongWithEntries) {
    for (const auto& [file, place] : {std::pair{"lint_entry.txt", "[0]"}, {"lint_entries.txt", ""}})
        for (const auto& [changes, findings] : casesOf(file))
            EXPECT_EQ(lines(lintBag(bagWithClients(clientsOf(changes))),
                            std::string("release/httpPost/clients") + place),
                      findings)
                << changes;
    EXPECT_THAT(
        lines(lintBag(bagWithClients({Dictionary()}))),
        testing::Contains("release/httpPost/clients[0]/locale_whitelist: error: absent: every session "
                          "that requires user info is refused"));
}

TEST(Lint, FindsWhatIsWrongAroundTheEntries) {
    for (const auto& [document, findings] : casesOf("lint_document.txt"))
        EXPECT_EQ(lines(lintDocument(json(document))), findings) << document;

    const Dictionary aSignedOne{{"bag", base64Encode("{}")}, {"signature", "AAAA"}};
    EXPECT_THAT(lines(lintDocument(aSignedOne)),
                testing::ElementsAre(testing::StartsWith("bag: error: bag: no property list")));
}

// Entries with up to four values that are gone, or of another type or bound.
Array changedAtRandom(Array clients, size_t seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    const auto below = [&random](size_t bound) { return random() % bound; };
    static const Array values =
        *parseJson(R"([-1, 0, 1, 2, 6, 65541, 0.2, 0.3, 0.6, 1.5, true, false, "", "5", "B", "net", "ch,US",
        "client", "https://other.example/", [], [1, 5, 7], ["6"], {}, {"key": "b"},
        [{"key": "b", "action": "remove"}, {"key": "c", "action": "hash"}]])")
             .value()
             .getIf<Array>();
    for (size_t changes = 1 + below(4); changes > 0; --changes) {
        PropertyList& element = clients[below(clients.size())];
        const Dictionary* const before = element.getIf<Dictionary>();
        if (before == nullptr || before->empty()) continue;
        Dictionary entry = *before;
        const std::string key =
            std::next(before->begin(), static_cast<ptrdiff_t>(below(before->size())))->key;
        if (below(4) == 0) {
            entry.erase(key);
        } else {
            entry.set(key, values[below(values.size())]);
        }
        element = std::move(entry);
    }
    return clients;
}

// The entries of all cases, by their text, and for each session others of 300 random changes, by their seed.
std::vector<std::pair<std::string, Array>> entriesFor(size_t session, size_t sessions) {
    std::vector<std::pair<std::string, Array>> all;
    for (const char* file : {"explain_entry.txt", "lint_entry.txt", "lint_entries.txt"})
        for (const auto& [changes, expected] : casesOf(file))
            all.emplace_back(changes, clientsOf(changes));
    const size_t cases = all.size();
    for (size_t seed = session; seed < 300; seed += sessions)
        all.emplace_back("seed " + std::to_string(seed), changedAtRandom(all[seed % cases].second, seed));
    return all;
}

std::vector<Scenario> sessionsOfManyKinds() {
    std::vector<Scenario> sessions(8, scenario(true));
    sessions[0].consent = false;
    sessions[1].batch = sessions[2].batch = true;
    sessions[2].draw = 0.6;
    sessions[3].serviceName = "network";
    sessions[4].requireUserInfo = false;
    sessions[4].clientName = sessions[4].serviceName = std::nullopt;
    sessions[5].clientName = sessions[6].clientName = "b";
    sessions[6].serviceName = "nets";
    sessions[7].serviceName = "net";
    return sessions;
}

// Reports of several categories and types, and of every flag.
std::string manyReports() {
    std::ostringstream lines;
    const auto add = [&lines](int category, int type, int flag) {
        lines << R"({"category": )" << category << R"(, "type": )" << type << R"(, "flag": )" << flag
              << R"(, "payload": {"a": 1, "B": "b", "c": 2, "ip": "::1"}})"
              << "\n";
    };
    for (int category = 1; category < 8; ++category)
        for (const int type : {0, 1, 3})
            add(category, type, 0);
    for (const int flag : {0, 1, 2, 0, 3, 0})
        add(5, 1, flag);
    return lines.str();
}

// The fate of the reports in a session of the real daemon, in the words of a replay.
Lines fatesInDaemon(test::DaemonWorld& world, const Dictionary& bag, const Scenario& given,
                    const std::string& reports) {
    world.now += 100'000;  // the bag before is stale by then
    world.serveBag(bag);
    const auto connection = world.connect();
    TelvoradSession& session = connection->session();
    const Dictionary user = userInfoOf(given);
    session.setSessionInfo(Dictionary::merged(test::sessionInfoFor(1),
                                              {{kTelvoraSessionInfoRequireUserInfo, given.requireUserInfo},
                                               {kTelvoraSessionInfoBatchEvent, given.batch}}),
                           user.empty() ? std::nullopt : std::optional(user), {}, false);
    session.startConfigWithCompletionHandler([](const auto&) {});
    session.flushMessagesWithCompletion({});  // flushes the daemon's own first report
    const ReportTally before = world.ledger.totals()["httpPost"];
    const size_t requestsBefore = world.http.requestCount();
    std::istringstream lines(reports);
    size_t sent = 0;
    for (std::string line; std::getline(lines, line); ++sent)
        session.sendMessageWithDictionary(*messageOfJson(line), [](const auto&) {});
    session.flushMessagesWithCompletion({});
    const ReportTally after = world.ledger.totals()["httpPost"];
    const auto count = [&](ReportOutcome outcome) {
        return std::to_string(after[outcome] - before[outcome]);
    };
    const size_t posts = world.http.requestCount() - requestsBefore;
    connection->invalidate();
    Lines fates{"  " + count(ReportOutcome::delivered) + " of " + std::to_string(sent) +
                " reports posted, in " + std::to_string(posts) + " posts\n"};
    for (size_t i = kFirstLoss; i < kReportOutcomes; ++i) {
        const auto cause = static_cast<ReportOutcome>(i);
        if (count(cause) != "0") fates.push_back("  " + count(cause) + " dropped: " + reasonOf(cause) + "\n");
    }
    return fates;
}

TEST(Replay, TellsTheFateOfReportsInTheDaemon) {
    const std::string reports = manyReports();
    const auto sessions = sessionsOfManyKinds();
    for (size_t session = 0; session < sessions.size(); ++session) {
        const Scenario& given = sessions[session];
        test::DaemonWorld world(given.device);
        world.setConsent(given.consent);
        world.random = given.draw;
        for (const auto& [name, clients] : entriesFor(session, sessions.size())) {
            const Dictionary bag = bagWithClients(clients);
            const std::string replay = replayOf(bag, given, reports);
            for (const std::string& fate : fatesInDaemon(world, bag, given, reports))
                EXPECT_THAT(replay, HasSubstr(fate)) << name;
        }
    }
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

TEST(Lint, FindingsOfNoEffectAreTrue) {
    const std::string reports = manyReports();
    size_t compared = 0;
    const auto replays = [&reports](const Array& clients) {
        Lines all;
        for (const Scenario& given : sessionsOfManyKinds())
            all.push_back(replayOf(bagWithClients(clients), given, reports));
        return all;
    };
    for (const auto& [name, clients] : entriesFor(0, 3)) {
        Lines before;
        for (const Finding& finding : lintBag(bagWithClients(clients))) {
            const auto changed = withoutIneffectivePart(clients, finding);
            if (!changed) continue;
            ++compared;
            if (before.empty()) before = replays(clients);
            EXPECT_EQ(replays(*changed), before) << name << finding.path << finding.text;
        }
    }
    EXPECT_GT(compared, 15u);
}

}  // namespace
}  // namespace telvora::bag
