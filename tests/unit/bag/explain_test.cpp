// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/explain.h"

#include "tests/support/daemon_world.h"
#include "tests/unit/bag/bag_cases.h"

namespace telvora::bag {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

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
    for (const auto& [changes, lines] : casesOf("explain_entry.txt")) {
        const bool consent = !changes.starts_with("without consent");
        const Dictionary entry = Dictionary::merged(json(kClient), json(changes.substr(changes.find('{'))));
        const Dictionary bag = test::DaemonWorld::bagWithClient(entry);
        std::string explanation;
        for (size_t i = 0; i + 1 < lines.size(); ++i)
            explanation += lines[i] + "\n";
        EXPECT_THAT(explainBag(bag, scenario(consent), false), HasSubstr(explanation)) << changes;
        std::istringstream reports(kReports);
        EXPECT_THAT(*replayReports(bag, scenario(consent), reports), HasSubstr(lines.back())) << changes;
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

}  // namespace
}  // namespace telvora::bag
