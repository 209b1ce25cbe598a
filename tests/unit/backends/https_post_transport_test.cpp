// SPDX-License-Identifier: Apache-2.0
//
// Construction, links and posts. tests/unit/bag/explain_entry.txt has the states by the entries of a bag.
#include <gmock/gmock.h>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(HTTPSPostStateTest, NeedsProfileFamilyAndClients) {
    const HTTPSPostRig rig;
    const LogCapture log;
    const BackendProfile good = profileOf({{"clients", Array{}}});
    const SharedIdentity family = shared(identityOf(7));
    EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", nullptr, family), nullptr);
    EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", good, shared(BackendIdentity())), nullptr);
    EXPECT_TRUE(log.lines().empty());
    for (const auto& bad : {profileOf({}), profileOf({{"clients", Dictionary{}}}),
                            std::make_shared<const PropertyList>("text")})
        EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", bad, family), nullptr);
    EXPECT_EQ(log.count("<3>HTTPSPostBackend(initWithName): can't find the client list."), 3u);
}

TEST(HTTPSPostStateTest, AnUnknownCountryOrHardwareIsOnEveryList) {
    HTTPSPostRig rig;
    rig.country.reset();
    rig.makeReportingBackend({{"locale_whitelist", "DE"}});
    const auto withoutHardware =
        rig.makeBackend({reportingClient({{"device_blacklist", "Other"}})}, identityOf(7, {}));
    withoutHardware->updateState();
    EXPECT_EQ(withoutHardware->state(), kDisabled);
}

TEST(HTTPSPostStateTest, PostLinksComeFromDefaultsOrTheBag) {
    constexpr int kNone = 0;  // no text, and so no link
    const Array one{reportingClient({{"event_threshold", 3}, {"realtime_post_url", kNone}})};
    const Array none{
        reportingClient({{"event_threshold", 1}, {"post_url", kNone}, {"realtime_post_url", kNone}})};
    const Array others{
        "x", none[0], Dictionary{{"client", "z"}, {"post_url", "http://z/"}, {"event_threshold", 5}}, one[0]};
    // The plain link and the realtime link in the defaults and in the posts.
    const std::tuple<Urls, Array, bool, Urls, std::string> cases[] = {
        {{"http://d/", "http://e/"}, one, true, {"http://d/", "http://e/"}, "3"},
        {{"http://d/", ""}, one, true, {"http://d/", "http://d/"}, "3"},
        // Without user info the first entry that has a link counts, whosever it is, if any.
        {{"", ""}, others, false, {"http://z/", "http://z/"}, "5"},
        {{"", ""}, none, false, {}, "0"},
        {{"http://d/", ""}, one, false, {"http://d/", "http://d/"}, "0"}};
    for (const auto& [defaults, clients, requireUserInfo, posted, threshold] : cases) {
        HTTPSPostRig rig;
        if (!defaults[0].empty()) rig.setDefault("httpsPostURL", defaults[0]);
        if (!defaults[1].empty()) rig.setDefault("httpsRealtimePostURL", defaults[1]);
        BackendIdentity identity = identityOf(7);
        identity.requireUserInfo = requireUserInfo;
        const auto backend = rig.makeBackend(clients, identity);
        const LogCapture log;
        backend->updateState();
        EXPECT_EQ(backend->state(), kReporting);
        EXPECT_EQ(log.count("<7>resetBackendStateWithClient: event_threshold set to " + threshold), 1u);
        for (const SendFlag flag : {kPlain, kRealtime})
            backend->sendMessage(Dictionary{}, kNow, 5, 6, flag);
        EXPECT_EQ(rig.urls(), posted);
    }
}

TEST(HTTPSPostTransportTest, HeadersInOrder) {
    const ReportingRig rig({}, identityWith([](auto& identity) { identity.isInternal = true; }));
    rig.backend->setUserInfoDict(shared(userInfoOf("app\r\nX-Forged: 1", "net")));
    rig.send();
    EXPECT_EQ(rig.http.requests().at(0).method, "POST");
    EXPECT_THAT(
        rig.http.requests().at(0).headers,
        ElementsAre(Pair("X-TVR-Client-Name", "app  X-Forged: 1"), Pair("X-TVR-Service-Name", "net"),
                    Pair("X-TVR-Internal-Build", "1"), Pair("User-Agent", "Telvora/3.1.9 (Model1,1; 12.1)"),
                    Pair("X-TVR-Client-Version", "11"), Pair("X-TVR-Sender", "VC"),
                    Pair("X-TVR-Event-Map", "5 6"), Pair("Accept", "application/json"),
                    Pair("Content-Type", "application/json"), Pair("Content-Encoding", "gzip")));

    BackendIdentity absent = batching();
    absent.compType = 99;
    absent.selfVersion = SelfVersion("8");
    absent.device = identityOf(99, {}).device;
    const ReportingRig bare({}, absent);
    bare.backend->setUserInfoDict(shared(Dictionary{{kTelvoraUserInfoClientName, 7}}));
    bare.send();
    flush(*bare.backend);
    EXPECT_THAT(
        bare.http.requests().at(0).headers,
        ElementsAre(Pair("User-Agent", "Telvora/8.0 ((null); 12.1)"), Pair("X-TVR-Client-Version", "11"),
                    Pair("X-TVR-Sender", ""), Pair("Accept", "application/json"),
                    Pair("Content-Type", "application/json"), Pair("Content-Encoding", "gzip")));
}

// A message that gzip would not shrink is sent plain: the filters remove all keys of this event.
TEST(HTTPSPostTransportTest, SmallMessagesAreSentPlain) {
    ReportingRig rig;
    rig.send();
    Array filters;
    for (const auto& [key, value] : rig.event())
        filters.emplace_back(Dictionary{{"key", key}, {"action", "remove"}});
    ReportingRig filtering({{"filters", std::move(filters)}});
    filtering.send();
    const HttpRequest request = filtering.http.requests().at(0);
    EXPECT_EQ(headerOf(request, "Content-Encoding"), "");
    EXPECT_EQ(request.body, "{\"postTime\":1447660800.25,\"clientId\":\"" +
                                filtering.identity.getPersistentIdentifierForDNU(true) +
                                "\",\"events\":[{}]}");
}

TEST(HTTPSPostTransportTest, TheClientIdentifierFollowsConsentAndBag) {
    enum Expected { respect, override_, custom, udid };
    const std::tuple<const char*, Dictionary, bool, bool, Expected> cases[] = {
        {"consent", {}, true, false, respect},
        {"overridden with consent", {{"override_dnu", 1}}, true, false, override_},
        {"overridden without", {{"override_dnu", 1}}, false, false, override_},
        {"custom", {{"custom_clientId", false}}, true, false, custom},
        {"extras elsewhere", {{"extras_on_internal", 1}}, true, false, respect},
        {"extras", {{"extras_on_internal", 1}, {"custom_clientId", 1}}, true, true, udid}};
    for (const auto& [what, client, consent, internal, expected] : cases) {
        HTTPSPostRig rig;
        rig.setConsent(consent);
        BackendIdentity identity = identityOf(7);
        identity.isInternal = internal;
        identity.udid = {"0123abc"};
        const auto backend = rig.makeReportingBackend(client, identity);
        const auto answer = backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
        const std::string identifiers[] = {
            rig.identity.getPersistentIdentifierForDNU(true),
            rig.identity.getPersistentIdentifierForDNU(false),
            rig.identity.getPersistentIdentifierForCustomClientIDSuffix("app", "network"), "0123abc"};
        EXPECT_EQ(messageOf(rig.http.requests().at(0)).clientId, identifiers[expected]) << what;
        // Only a consenting user's messages may be logged.
        EXPECT_EQ(answer.has_value(), !client.contains("override_dnu")) << what;
    }
}

TEST(HTTPSPostTransportTest, LoggingCanBeForcedInTwoEnvironments) {
    const std::tuple<int, bool, bool> cases[] = {
        {1, true, true}, {2, true, true}, {3, true, false}, {4, true, false}, {1, false, false}};
    for (const auto& [environment, force, logged] : cases) {
        HTTPSPostRig rig;
        rig.setConsent(false);
        rig.setDefault("environmentType", environment);
        rig.setDefault("forceEventLogging", force);
        const auto backend = rig.makeReportingBackend({{"override_dnu", 1}});
        const auto answer = backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
        EXPECT_EQ(answer.has_value(), logged) << environment;
    }
}

TEST(HTTPSPostTransportTest, TheAnswerDecidesOnTheBackend) {
    const auto byServer = [](int status) {
        return makeTelvoraError(
            "backend httpPost disabled by server " + std::to_string(status) + " return code", status);
    };
    // A line is not checked if it is empty.
    const std::tuple<HttpResult, BackendState, std::optional<TelvoraError>, std::string> cases[] = {
        {FakeHttpClient::response(200), kReporting, {}, ""},
        {FakeHttpClient::response(499), kReporting, {}, ""},
        {FakeHttpClient::response(600), kReporting, {}, ""},
        {FakeHttpClient::response(500), kDisabled, byServer(500),
         "<6>postJSONMessage: backend httpPost disabled by server 500 return code"},
        {FakeHttpClient::response(599), kDisabled, byServer(599), ""},
        {FakeHttpClient::failure("no route"), kReporting, makeTelvoraError("no route", -1),
         "<3>HTTPSPostBackend(postJsonMessage): post error: no route"}};
    for (const auto& [result, state, error, line] : cases) {
        SCOPED_TRACE(result ? result->status : 0);
        ReportingRig rig({}, batching());
        rig.http.setHandler([&answer = result](const HttpRequest&) { return answer; });
        rig.send();
        const LogCapture log;
        EXPECT_EQ(flush(*rig.backend).second, error);
        EXPECT_EQ(rig.backend->state(), state);
        EXPECT_TRUE(line.empty() || log.contains(line));
    }
}

TEST(HTTPSPostTransportTest, WithoutAURLNoMessageIsPosted) {
    const ReportingRig rig({{"post_url", 0}, {"realtime_post_url", 0}}, batching());
    rig.send();
    EXPECT_EQ(flush(*rig.backend).second, makeTelvoraError("postURL is nil", -1));
    EXPECT_EQ(rig.http.requestCount(), 0u);
}

}  // namespace
}  // namespace telvora::test
