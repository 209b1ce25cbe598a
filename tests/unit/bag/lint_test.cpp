// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/lint.h"

#include <gmock/gmock.h>

#include "json/json_reader.h"
#include "platform/digest.h"
#include "util/base64.h"

namespace telvora::bag {
namespace {

Dictionary json(std::string_view text) {
    return *parseJson(text).value().getIf<Dictionary>();
}

using Lines = std::vector<std::string>;

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
    const std::string kLikeZero = ", as it is filtered there like a report of category 0 and type 0";
    // Changes to the good entry, and the findings, whose paths are relative to the entry.
    const std::pair<const char*, Lines> cases[] = {
        {R"({})", {}},
        {R"({"Event_whitelist": [1]})",
         {"/Event_whitelist: error: the unknown key is ignored; did you mean \"event_whitelist\"?"}},
        {R"({"locale_whitelist": 1})",
         {"/locale_whitelist: error: is a number, should be: text with commas; counts as absent: every "
          "session that requires user info is refused"}},
        {R"({"locale_whitelist": ""})",
         {"/locale_whitelist: error: is empty, which differs from absent: it matches no text"}},
        {R"({"locale_whitelist": "DE, CH,x,USA"})",
         {"/locale_whitelist: error: \" CH\" has blanks at an end: they are part of the element",
          "/locale_whitelist: warning: \"x\" matches every country code with that letter",
          "/locale_whitelist: error: \"USA\" is in no country code: it never matches"}},
        {R"({"sampling_threshold": true, "event_threshold": "49", "client": ""})",
         {"/client: error: is empty, which differs from absent: it matches only an empty name",
          "/event_threshold: error: is text, should be: number; counts as absent: 0",
          "/sampling_threshold: warning: is a boolean, should be: number; counts as 1"}},
        {R"({"enabledSince": "3.256"})",
         {"/enabledSince: error: \"256\" is not one of the numbers 0 to 255 and counts as another one"}},
        {R"({"enabledSince": "3.2.1.0"})", {"/enabledSince: warning: only the first three numbers count"}},
        {R"({"sampling_threshold": 1.5, "override_sampling": -0.25})",
         {"/override_sampling: error: -0.25 is outside of 0 to 1",
          "/sampling_threshold: error: 1.5 is outside of 0 to 1"}},
        {R"({"override_sampling": 0.25})",
         {"/override_sampling: warning: is below sampling_threshold: it has the effect of 0, no session is "
          "sampled out"}},
        {R"({"override_dnu": 2, "custom_clientId": false, "expedite": true})",
         {"/override_dnu: error: 2 is outside of 0 to 1",
          "/custom_clientId: warning: its presence counts, not its value: it is in effect"}},
        {R"({"post_url": "reports.example"})",
         {"/post_url: error: it can't be requested: URL is not an absolute http or https URL"}},
        {R"({"realtime_post_url": "http://reports.example/"})",
         {"/realtime_post_url: warning: is not https: reports can be read on the way"}},
        {R"({"event_whitelist": [1, "2", 70000]})",
         {"/event_whitelist[1]: warning: is text, should be: number; counts as 2",
          "/event_whitelist[2]: error: 70000 is outside of 0 to 65535"}},
        {R"({"event_whitelist": []})",
         {"/event_whitelist: error: is empty, which differs from absent: no report passes"}},
        {R"({"event_whitelist": [1, 3], "event_blacklist": [3, 4]})",
         {"/event_whitelist: error: 3 is on event_blacklist too: it does not pass",
          "/event_blacklist: warning: 4 has no effect: it is not on event_whitelist"}},
        {R"({"filters": [{"action": "remove"}, {"key": "", "action": "sha256"}, {"key": "a", "action": "Remove"}]})",
         {"/filters[0]/key: error: absent: the filter matches no key",
          "/filters[1]/key: error: is empty: it matches no key",
          "/filters[2]/action: error: \"Remove\" is neither \"remove\" nor \"sha256\": the key is kept"}},
        {R"({"filters": [{"key": "ip", "action": "keep", "method": 5}, {"key": "IP", "action": "remove"},
                         {"key": "ip", "action": "sha256", "method": 6}]})",
         {"/filters[2]: error: is never reached: filters[1] decides about all its keys"}},
        {R"({"filters": [{"key": "ip", "action": "remove", "method": 5}], "event_whitelist": [6]})",
         {"/filters[0]/method: warning: reports of category 5 are not sent: see the event lists"}},
        {R"({"filters": [{"key": "a", "action": "sha256", "method": 5}, {"key": "a", "action": "sha256"},
                         {"key": "B", "action": "remove", "status": 3}, {"key": "b", "action": "sha256"},
                         {"key": "c", "action": "keep", "method": 0}, {"key": "c", "action": "remove"},
                         {"key": "_sessionID", "action": "remove", "method": 5}]})",
         {"/filters[2]: warning: does not protect user info: batched reports have it hashed" + kLikeZero,
          "/filters[5]: warning: does not protect user info: batched reports have it in clear" + kLikeZero}},
        {R"({"per_country_sampling_thresholds": [{"country": ["DE", "ch"], "threshold": 1.5}, {"country": ["DE", "FR"]},
                                                 {"country": [], "threshold": 1}]})",
         {"/per_country_sampling_thresholds[0]/threshold: error: 1.5 is outside of 0 to 1",
          "/per_country_sampling_thresholds[1]/threshold: error: absent: the sessions of these countries are "
          "refused",
          "/per_country_sampling_thresholds[0]/country: error: \"ch\" is not a country code in capital "
          "letters: it never matches",
          "/per_country_sampling_thresholds[1]/country: error: \"DE\" is never reached: an earlier element "
          "has it",
          "/per_country_sampling_thresholds[1]/country: error: \"FR\" is never reached: it is not in "
          "locale_whitelist",
          "/per_country_sampling_thresholds[2]/country: error: is empty: the element matches no country"}}};
    for (const auto& [changes, findings] : cases) {
        const Dictionary client = Dictionary::merged(json(kGoodClient), json(changes));
        EXPECT_EQ(lines(lintClients({client}), "release/httpPost/clients[0]"), findings) << changes;
    }
    EXPECT_THAT(lines(lintClients({Dictionary()}), "release/httpPost/clients[0]"),
                testing::Contains(
                    "/locale_whitelist: error: absent: every session that requires user info is refused"));
}

TEST(Lint, FindsEntriesThatOthersLeaveNothingFor) {
    const std::string all = "[1]: error: is never used: clients[0] matches all its sessions";
    const std::string none = "[1]: error: is never used: earlier entries match all its sessions";
    const std::tuple<const char*, const char*, Lines> cases[] = {
        {R"({})", R"({"client": "a"})", {none}},
        {R"({"post_url": 1, "expedite": 1})",
         R"({"expedite": 1})",
         {"[0]/post_url: error: is a number, should be: URL; counts as absent: reports that are not realtime "
          "can't be posted, unless the user default httpsPostURL is set",
          "[1]: warning: is used only by sessions that require no user info: clients[0] matches all others",
          "[1]/expedite: error: is never read: clients[0] is the first entry of these names"}},
        {R"({"client": "a"})", R"({})", {}},
        {R"({"client": "A,b"})", R"({"client": "a"})", {none}},
        {R"({"client": "a"})",
         R"({"client": "a,b"})",
         {"[1]/client: error: never used for \"a\": clients[0] matches its sessions"}},
        {R"({"service": "net"})", R"({"service": "network,NETS"})", {all}},
        {R"({"service": "network"})", R"({"service": "net"})", {}},
        {R"({"enabledSince": "3.1"})", R"({"enabledSince": "3.2"})", {all}},
        {R"({"enabledSince": "3.2"})", R"({"enabledSince": "3.1"})", {}},
        {R"({"enabledSince": "3.2"})",
         R"({"expedite": 1})",
         {"[1]/expedite: error: is never read: clients[0] is the first entry of these names"}}};
    for (const auto& [first, second, findings] : cases) {
        Array clients;
        for (const char* changes : {first, second}) {
            Dictionary client = json(kGoodClient);
            client.erase("client");
            client.merge(json(changes));
            clients.emplace_back(std::move(client));
        }
        EXPECT_EQ(lines(lintClients(std::move(clients)), "release/httpPost/clients"), findings)
            << first << second;
    }
}

TEST(Lint, FindsWhatIsWrongAroundTheEntries) {
    const std::pair<const char*, Lines> cases[] = {
        {R"({"version": "1", "refresh_cycle": 3600, "release": {"vodex": {"active": true}, "joulemark": {}}})",
         {}},
        {R"({"refresh_cycle": 100000, "beta": {}})",
         {"beta: error: the unknown key is ignored", "refresh_cycle: error: 100000 is outside of 1 to 86400",
          "version: warning: absent: end messages do not name the bag",
          "release: warning: absent: no configuration on the devices of ordinary users"}},
        {R"({"version": "1", "release": {"httpPots": {}, "uploadServer": {}, "httpPost": {"clients": []},
             "dashboard": {"ip": "collector", "port": 65536, "reliable": {}}, "joulemark": true}})",
         {"release/dashboard/ip: error: \"collector\" is no IPv4 address: the backend is not made",
          "release/dashboard/port: error: 65536 is outside of 1 to 65535",
          "release/dashboard/reliable: error: is a dictionary, should be: number; the period is 500 ms",
          "release/httpPost/clients: error: is empty: every session that requires user info is refused",
          "release/httpPots: error: the unknown key names no backend and is ignored; did you mean "
          "\"httpPost\"?",
          "release/joulemark: error: is a boolean, should be: dictionary; the backend is made nevertheless",
          "release/uploadServer/post_url: error: absent: the backend is not made"}},
        {R"({"bag": "?", "Signature": "AAAA"})",
         {"Signature: error: the unknown key is ignored; did you mean \"signature\"?",
          "bag: error: is not base64: the document is refused",
          "signature: error: absent: the document is refused"}}};
    for (const auto& [document, findings] : cases)
        EXPECT_EQ(lines(lintDocument(json(document))), findings) << document;

    const Dictionary aSignedOne{{"bag", base64Encode("{}")}, {"signature", "AAAA"}};
    EXPECT_THAT(lines(lintDocument(aSignedOne)),
                testing::ElementsAre(testing::StartsWith("bag: error: bag: no property list")));
}

}  // namespace
}  // namespace telvora::bag
