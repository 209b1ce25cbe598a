// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/explain.h"

#include <gmock/gmock.h>

#include <sstream>

#include "json/json_reader.h"
#include "tests/support/daemon_world.h"

namespace telvora::bag {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

Dictionary json(std::string_view text) {
    return *parseJson(text).value().getIf<Dictionary>();
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

TEST(Explain, SaysWhatTheDaemonDoes) {
    // The changes to the entry (a number counts as absent), consent, the explanation, and the number of
    // reports posted.
    const std::tuple<const char*, bool, std::string, int> cases[] = {
        {R"({})", true, "clients[0]: the draw 0.3 is not above the sampling threshold 0.5\n  => reporting\n",
         6},
        {R"({"client": "other"})", true,
         "clients[0]: skipped: it applies to client \"other\", service (absent)\n"
         "  no entry applies to client \"client\" and service \"service\"\n  => disabled",
         0},
        {R"({"enabledSince": "9"})", true, "clients[0]: skipped: enabledSince \"9\" is later than 8.0\n", 0},
        {R"({})", false, "the user does not share diagnostics, and override_dnu is not 1\n  => disabled", 0},
        {R"({"override_dnu": 1})", false,
         "override_dnu: it does not matter whether the user shares diagnostics\n", 6},
        {R"({"locale_whitelist": 1})", true,
         "clients[0]: country \"CH\" is not in locale_whitelist (absent)\n  => disabled", 0},
        {R"({"device_whitelist": "x,y"})", true, "device \"phone\" is not in device_whitelist \"x,y\"\n", 0},
        {R"({"device_blacklist": "model"})", true,
         "product type \"Model1,1\" is in device_blacklist \"model\"\n", 0},
        {R"({"filters": 1})", true, "clients[0]: filters are absent, and required\n  => disabled", 0},
        {R"({"sampling_threshold": []})", true, "clients[0]: there is no sampling threshold\n  => disabled",
         0},
        {R"({"sampling_threshold": 0.2})", true,
         "clients[0]: the draw 0.3 is above the sampling threshold 0.2\n  => sampled out", 6},
        {R"({"sampling_threshold": 0.2, "event_threshold": 0})", true,
         "  => sampled out\n  reports: held; a flush drops them: the session is sampled out\n"
         "  promoting reports: posted at once to https://reports.example/\n"
         "  batches: report 2 of a category drops those before it\n",
         2},
        {R"({"sampling_threshold": 0.2, "override_sampling": 0.25})", true,
         "the draw 0.3 is above the sampling threshold 0.2 and above override_sampling 0.25\n  => disabled",
         0},
        {R"({"per_country_sampling_thresholds": [{"country": ["CH"], "threshold": 0.1}]})", true,
         "  per_country_sampling_thresholds has 0.1 for \"CH\"\n"
         "  clients[0]: the draw 0.3 is above the sampling threshold 0.1\n",
         6},
        {R"({"per_country_sampling_thresholds": [{"country": ["CH"]}]})", true,
         "  per_country_sampling_thresholds has (none) for \"CH\"\n"
         "  clients[0]: there is no sampling threshold\n",
         0},
        {R"({"event_threshold": "49", "expedite": 0})", true,
         "batches: report 2 of a category sends those before it\n", 6},
        {R"({"event_whitelist": [0, 5, 7], "event_blacklist": [7]})", true, "categories that pass: 0, 5\n",
         4},
        {R"({"expedite": 0, "event_threshold": 1})", true,
         "batches: report 3 of a category sends those before it\n", 6},
        {R"({"expedite": 2})", true, "  reports: posted at once to https://reports.example/\n", 6},
        {R"({"post_url": 1})", true, "reports: dropped: there is no URL to post to\n", 0}};
    for (const auto& [changes, consent, explanation, posted] : cases) {
        const Dictionary bag =
            test::DaemonWorld::bagWithClient(Dictionary::merged(json(kClient), json(changes)));
        EXPECT_THAT(explainBag(bag, scenario(consent), false), HasSubstr(explanation)) << changes;
        std::istringstream reports(kReports);
        EXPECT_THAT(*replayReports(bag, scenario(consent), reports),
                    HasSubstr("  " + std::to_string(posted) + " of 6 reports posted"))
            << changes;
    }
}

TEST(Explain, ShowsAWholeBag) {
    Dictionary bag = test::DaemonWorld::bagWithClient(
        Dictionary::merged(json(kClient), json(R"({"realtime_post_url": "https://now.example/",
        "filters": [{"key": "ip", "action": "remove"},
                    {"key": "user", "action": "sha256", "method": 5, "status": 1}]})")));
    bag.set("release", Dictionary::merged(*bag.dictionary("release"), json(R"({"vodex": {},
        "dashboard": {"ip": "127.0.0.1"}, "uploadServer": {"post_url": "https://up.example/"}})")));
    Scenario given = scenario(true);
    given.environment = EnvironmentType::seed;
    EXPECT_EQ(explainBag(bag, given, false),
              "bag \"quillet\", version 1, used for as long as its server says\n"
              "environment seed\n"
              "  log: <4>fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.\n"
              "\ndashboard\n"
              "  log: <3>DashboardBackend(initWithName): can't resolve server port\n"
              "  => no backend\n"
              "\nhttpPost\n"
              "  clients[0]: taken: the first entry for client \"client\" and service \"service\"\n"
              "  clients[0]: the user shares diagnostics\n"
              "  clients[0]: the draw 0.3 is not above the sampling threshold 0.5\n"
              "  => reporting\n"
              "  reports: posted at once to https://reports.example/\n"
              "  realtime reports: posted at once to https://now.example/\n"
              "  fields: \"ip\" is removed\n"
              "  fields: \"user\" is hashed in reports of category 5 and type 1\n"
              "\nuploadServer\n"
              "  => reporting\n"
              "  reports: dropped: sessions send no reports to this backend\n"
              "\nvodex\n"
              "  => reporting\n"
              "  reports: passed to the metrics adaptor, if the device has one\n");

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
