// SPDX-License-Identifier: Apache-2.0
//
// The texts of explain and lint. The cases are in the text files of this folder.
#include <gmock/gmock.h>

#include <sstream>

#include "json/json_reader.h"
#include "platform/digest.h"
#include "telvora-bag/explain.h"
#include "telvora-bag/lint.h"
#include "tests/support/daemon_world.h"
#include "util/base64.h"

namespace telvora::bag {
namespace {

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

const char kClient[] =
    R"({"client": "client", "locale_whitelist": "DE,ch", "filters": [], "sampling_threshold": 0.5,
    "event_threshold": 49, "post_url": "https://reports.example/"})";
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

TEST(Explain, GivesTheReasonsAndTheFateOfReports) {
    for (const auto& [changes, texts] : casesOf("explain_entry.txt")) {
        const Scenario given = scenario(!changes.starts_with("without consent"));
        const Dictionary bag = test::DaemonWorld::bagWithClient(
            Dictionary::merged(json(kClient), json(changes.substr(changes.find('{')))));
        std::istringstream reports(kReports);
        const std::string found = explainBag(bag, given, true) + *replayReports(bag, given, reports);
        for (const std::string& text : texts)
            EXPECT_THAT(found, HasSubstr(text + "\n")) << changes;
    }
}

TEST(Explain, ShowsAWholeBag) {
    const Dictionary bag = json(caseFile("explain_bag.json"));
    Scenario given = scenario(true);
    given.environment = EnvironmentType::seed;
    EXPECT_EQ(explainBag(bag, given, false), caseFile("explain_bag.txt"));

    std::istringstream reports(kReports);
    const auto replay = replayReports(bag, given, reports);
    EXPECT_THAT(*replay, HasSubstr("httpPost\n  6 of 6 reports posted, in 6 posts\n"));
    EXPECT_THAT(*replay, HasSubstr("vodex\n  6 of 6 reports passed to the metrics adaptor\n"));
    EXPECT_THAT(*replay, HasSubstr("  \"IP\" removed from 1 reports\n  \"ip\" removed from 1 reports\n"
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

const char kGoodClient[] = R"({"client": "app", "locale_whitelist": "DE,ch", "filters": [],
    "sampling_threshold": 0.5, "event_threshold": 49, "post_url": "https://reports.example/"})";

std::vector<Finding> lintClients(Array clients) {
    const Dictionary section{{"httpPost", Dictionary{{"clients", std::move(clients)}}}};
    return lintBag({{"version", "1"}, {"release", section}});
}

TEST(Lint, FindsWhatIsWrongWithAnEntry) {
    for (const auto& [changes, findings] : casesOf("lint_entry.txt")) {
        const Dictionary client = Dictionary::merged(json(kGoodClient), json(changes));
        EXPECT_EQ(lines(lintClients({client}), "release/httpPost/clients[0]"), findings) << changes;
    }
    EXPECT_THAT(lines(lintClients({Dictionary()}), "release/httpPost/clients[0]"),
                testing::Contains(
                    "/locale_whitelist: error: absent: every session that requires user info is refused"));
}

TEST(Lint, FindsEntriesThatOthersLeaveNothingFor) {
    for (const auto& [changes, findings] : casesOf("lint_entries.txt")) {
        const PropertyList both = parseJson(changes).value();
        Array clients;
        for (const PropertyList& change : *both.getIf<Array>()) {
            Dictionary client = json(kGoodClient);
            client.erase("client");
            client.merge(*change.getIf<Dictionary>());
            clients.emplace_back(std::move(client));
        }
        EXPECT_EQ(lines(lintClients(std::move(clients)), "release/httpPost/clients"), findings) << changes;
    }
}

TEST(Lint, FindsWhatIsWrongAroundTheEntries) {
    for (const auto& [document, findings] : casesOf("lint_document.txt"))
        EXPECT_EQ(lines(lintDocument(json(document))), findings) << document;

    const Dictionary aSignedOne{{"bag", base64Encode("{}")}, {"signature", "AAAA"}};
    EXPECT_THAT(lines(lintDocument(aSignedOne)),
                testing::ElementsAre(testing::StartsWith("bag: error: bag: no property list")));
}

}  // namespace
}  // namespace telvora::bag
