// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "json/json_reader.h"
#include "telvora-lab/event_json.h"
#include "telvora-lab/follow.h"
#include "telvora-lab/kept_state.h"
#include "telvora-lab/page/page_server.h"
#include "telvora-lab/page/scenario_json.h"
#include "telvora-lab/session_tree.h"
#include "tests/support/temporary_directory.h"

namespace telvora::lab {
namespace {

// "a(1 b(2))": session a with one event, and below it b with two.
std::string drawn(const std::vector<SessionNode>& nodes) {
    std::string text;
    for (const SessionNode& node : nodes) {
        text += (text.empty() ? "" : " ") + node.sessionID + "(" + std::to_string(node.events);
        if (!node.children.empty()) text += " " + drawn(node.children);
        text += ")";
    }
    return text;
}

TEST(SessionTree, FollowsTheCombinedIDs) {
    const std::pair<std::vector<PropertyList>, const char*> cases[] = {
        {{}, ""},
        {{"a", "b", "a"}, "a(2) b(1)"},
        {{"a", "a.b", "a.c", "a.b.d"}, "a(1 b(1 d(1)) c(1))"},
        {{"a.b.c"}, "a(0 b(0 c(1)))"},
        {{"b", "a.b", "b.c"}, "a(0 b(2 c(1)))"},       // reported before it knew its parent; a gap
        {{"a.c", "b.c"}, "a(0) b(0 c(2))"},            // a new parent
        {{"a.b", "b.a", "c.c"}, "a(1 b(1)) c(1)"},     // circles
        {{7, 7, PropertyList(Dictionary{})}, "7(2)"},  // numeric IDs
        {{"a", "b.c", "d", "a", "e", "f", "g"}, "a(2) d(1) e(1) f(1) g(1)"},  // c, then b
        {{std::string(200, '.')}, ""},
    };
    for (const auto& [ids, tree] : cases) {
        SessionTree sessions(5);
        sessions.take({{"other", 1}});
        for (const PropertyList& id : ids)
            sessions.take({{"_sessionID", id}});
        EXPECT_EQ(drawn(sessions.roots()), tree);
    }
}

TEST(EventJson, FindsTheNumbersOfEventsAlone) {
    const std::pair<const char*, std::optional<std::vector<uint64_t>>> cases[] = {
        {R"({"n": 9, "events": [{"n": 1, "x": {"n": 7}}, {"n": 2}]})", {{1, 2}}},
        {R"({"events": []})", {{}}},
        {R"({"other": [{"n": 5}], "events": [{"n": 1}]})", {{1}}},
        {R"({"events": [{"m": 1}, {"n": -1}, {"n": 3}]})", {{3}}},
        {R"({"events": [{"n": 1})", std::nullopt}};
    for (const auto& [json, numbers] : cases) {
        const auto found = eventNumbers(json, "n");
        EXPECT_EQ(found ? std::optional(*found) : std::nullopt, numbers) << json;
    }
}

TEST(Feed, DropsTheOldestAndCountsTheirReports) {
    using std::chrono::milliseconds;
    Feed feed(400);
    EXPECT_EQ(feed.read(1, 1000, milliseconds(0)).next(), 1u);
    for (int i = 1; i <= 20; ++i)
        feed.add("message", {{"n", i}}, 2, R"({"events":[]})");
    const Feed::Excerpt kept = feed.read(1, 1000, milliseconds(0));
    EXPECT_EQ(kept.next(), 21u);
    EXPECT_GT(kept.first, 10u);
    EXPECT_EQ(kept.reportsBefore, 2 * (kept.first - 1));
    EXPECT_EQ(kept.reportsBefore + kept.reports, 40u);
    EXPECT_EQ(parseJson(kept.records.back())->getIf<Dictionary>()->dictionary("body")->size(), 1u);
    EXPECT_EQ(feed.read(kept.first, 1, milliseconds(0)).records.size(), 1u);
    EXPECT_EQ(feed.read(21, 1000, milliseconds(0)).reportsBefore, 40u);
    EXPECT_EQ(feed.read(500, 1000, milliseconds(0)).first, kept.first);  // of an earlier run
    feed.close();
    EXPECT_TRUE(feed.read(21, 1000, std::chrono::hours(1)).records.empty());
}

TEST(Follow, DescribesRecords) {
    const std::string message =
        R"({"kind":"message","at":0,"path":"/events","status":503,"reports":1,)"
        R"("headers":{"X-TVR-Client-Name":"c\u001b"},"body":{"clientId":"i","events":[)"
        R"({"_method":4,"_status":2,"a":"x\u202ey","n":9007199254740993}]}})";
    EXPECT_EQ(describeRecord(message, false).substr(13),
              "/events 503 c\\x1b 4/2 a=\"x\\u202ey\" n=9007199254740993\n");
    EXPECT_EQ(describeRecord(message, true),
              R"({"at":0,"clientId":"i","event":{"_method":4,"_status":2,"a":"x\u202ey",)"
              R"("n":9007199254740993},"path":"/events","status":503})"
              "\n");
    EXPECT_EQ(describeRecord(R"({"kind":"bagRequest","at":0,"name":"b","status":304})", false).substr(13),
              "/bags/b 304\n");
}

TEST(Keep, PreservesKeysPortsAndBags) {
    const test::TemporaryDirectory directory;
    const auto kept = [&](const std::string& file) { return test::readFile(directory.path() / file); };
    const char* const kKeys[] = {"ca.pem", "ca-key.pem", "bag-key.pem", "framework/publicKey.der"};
    std::map<std::string, std::string> first;
    for (const char* address : {"127.0.0.1", "127.0.0.1", "127.0.0.2"}) {
        ASSERT_TRUE(LabPki::make(directory.path(), address, true));
        for (const char* file : kKeys)
            EXPECT_EQ(first.try_emplace(file, kept(file)).first->second, kept(file)) << file;
        const std::string server = kept("server.pem");
        EXPECT_EQ(first.try_emplace("server.pem", server).first->second == server,
                  std::string(address) == "127.0.0.1");
    }
    for (const char* file : {"ca-key.pem", "bag-key.pem", "server-key.pem"})
        EXPECT_EQ(std::filesystem::status(directory.path() / file).permissions(),
                  std::filesystem::perms(0600));

    EXPECT_EQ(readKeptState(directory.path()).value().token, "");
    const Dictionary bag{{"version", "1"}};
    KeptState state{.ports = {.reports = 7}, .pagePort = 8, .token = "t", .bags = {{"b", bag}}};
    ASSERT_TRUE(writeKeptState(directory.path(), state) && writeKeptBag(directory.path(), "b", bag));
    const auto again = readKeptState(directory.path());
    EXPECT_EQ(again->ports.reports, 7);
    EXPECT_EQ(again->pagePort, 8);
    EXPECT_EQ(again->token, "t");
    EXPECT_EQ(again->bags, state.bags);
    for (const char* name : {"", ".", "..", "../b", "a/b", "a b"})
        EXPECT_FALSE(writeKeptBag(directory.path(), name, bag)) << name;
    directory.write("bags/b.plist", "nonsense");
    EXPECT_THAT(readKeptState(directory.path()).error(), testing::HasSubstr("b.plist: "));
}

TEST(Page, AnswersItsOwnRequestsOnly) {
    const std::tuple<HttpHeaders, std::string, bool> cases[] = {
        {{{"Host", "127.0.0.1:80"}, {"X-Lab-Token", "abc"}}, "abc", true},
        {{{"Host", "localhost"}, {"X-Lab-Token", "abc"}, {"Origin", "http://localhost"}}, "abc", true},
        {{{"Host", "localhost"}, {"X-Lab-Token", "abd"}}, "abc", false},
        {{{"Host", "localhost"}, {"X-Lab-Token", "abcd"}}, "abc", false},
        {{{"Host", "localhost"}}, "abc", false},
        {{{"Host", "localhost"}, {"X-Lab-Token", ""}}, "", false},
        {{{"Host", "rebound.example:80"}, {"X-Lab-Token", "abc"}}, "abc", false},
        {{{"Host", "127.0.0.1.evil.example"}, {"X-Lab-Token", "abc"}}, "abc", false},
        {{{"X-Lab-Token", "abc"}}, "abc", false},
        {{{"Host", "localhost"}, {"X-Lab-Token", "abc"}, {"Origin", "http://localhost:81"}}, "abc", false},
        {{{"Host", "localhost"}, {"X-Lab-Token", "abc"}, {"Origin", "null"}}, "abc", false}};
    for (const auto& [headers, token, answered] : cases) {
        ServerRequest request;
        request.headers = headers;
        EXPECT_EQ(isFromThePage(request, token), answered) << testing::PrintToString(headers);
    }
}

TEST(Page, ReadsScenarios) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"clientType": 8, "country": "us", "draw": 1, "environment": "seed", "clientName": ""})", ""},
        {R"({})", "the client type"},
        {R"({"clientType": 19})", "the client type"},
        {R"({"clientType": 8, "country": "USA"})", "\"USA\""},
        {R"({"clientType": 8, "draw": 1.5})", "the draw"},
        {R"({"clientType": 8, "environment": "e"})", "\"e\""}};
    for (const auto& [json, problem] : cases) {
        const auto scenario = scenarioOf(*parseJson(json)->getIf<Dictionary>());
        EXPECT_THAT(scenario ? "" : scenario.error(), testing::HasSubstr(problem));
        EXPECT_EQ(scenario.has_value(), *problem == '\0') << json;
    }
}

}  // namespace
}  // namespace telvora::lab
