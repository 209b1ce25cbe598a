// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora {
namespace {

using test::FakeHttpClient;
using test::headerOf;
using test::HTTPSPostRig;
using test::kNow;
using test::LogCapture;
using test::messageOf;
using test::shared;
using testing::ElementsAre;
using testing::Pair;

TEST(HTTPSPostTransportTest, HeadersInOrder) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setIsInternal(true);
    backend->setUserInfoDict(shared(test::userInfoOf("app\r\nX-Forged: 1", "net")));
    backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
    const HttpRequest request = rig.http.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_THAT(
        request.headers,
        ElementsAre(Pair("X-TVR-Client-Name", "app  X-Forged: 1"), Pair("X-TVR-Service-Name", "net"),
                    Pair("X-TVR-Internal-Build", "1"), Pair("User-Agent", "Telvora/3.1.9 (Model1,1; 12.1)"),
                    Pair("X-TVR-Client-Version", "11"), Pair("X-TVR-Sender", "VC"),
                    Pair("X-TVR-Event-Map", "5 6"), Pair("Accept", "application/json"),
                    Pair("Content-Type", "application/json"), Pair("Content-Encoding", "gzip")));
}

TEST(HTTPSPostTransportTest, HeadersOfWhatIsAbsent) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setBatchEvents(true);
    backend->setCompType(99);
    backend->setSelfVersion("8");
    backend->setHardwareType(std::nullopt);
    backend->setUserInfoDict(shared({{kTelvoraUserInfoClientName, 7}}));
    backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
    backend->flushMessagesWithCompletion({});
    EXPECT_THAT(
        rig.http.requests().at(0).headers,
        ElementsAre(Pair("User-Agent", "Telvora/8.0 ((null); 12.1)"), Pair("X-TVR-Client-Version", "11"),
                    Pair("X-TVR-Sender", ""), Pair("Accept", "application/json"),
                    Pair("Content-Type", "application/json"), Pair("Content-Encoding", "gzip")));
}

// A message is sent plain where gzip gains nothing: the filters leave next to nothing of this event.
TEST(HTTPSPostTransportTest, SmallMessagesAreSentPlain) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    Array filters;
    for (const char* key :
         {"_clientTS", "_clientVersion", "_eventNumber", "_internal", "_method", "_osVersion",
          "_productFamily", "_productModel", "_reportVers", "_sender", "_sessionID", "_startTS", "_status",
          "_timezoneOffset", "eventTime", kTelvoraUserInfoClientName, kTelvoraUserInfoServiceName})
        filters.emplace_back(Dictionary{{"key", key}, {"action", "remove"}});
    const auto backend = rig.makeReportingBackend({{"filters", std::move(filters)}});
    backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
    const HttpRequest request = rig.http.requests().at(0);
    EXPECT_EQ(headerOf(request, "Content-Encoding"), "");
    EXPECT_EQ(request.body, "{\"postTime\":1447660800.25,\"clientId\":\"" +
                                rig.identity.getPersistentIdentifierForDNU(true) + "\",\"events\":[{}]}");
}

TEST(HTTPSPostTransportTest, TheClientIdentifierFollowsConsentAndBag) {
    enum Expected { respect, override_, custom, udid };
    const struct {
        const char* what;
        Dictionary client;
        bool consent;
        bool internal;
        Expected expected;
    } cases[] = {
        {"consent", {}, true, false, respect},
        {"overridden with consent", {{"override_dnu", 1}}, true, false, override_},
        {"overridden without", {{"override_dnu", 1}}, false, false, override_},
        {"custom", {{"custom_clientId", false}}, true, false, custom},
        {"extras elsewhere", {{"extras_on_internal", 1}}, true, false, respect},
        {"extras", {{"extras_on_internal", 1}, {"custom_clientId", 1}}, true, true, udid},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(c.consent);
        const auto backend = rig.makeReportingBackend(c.client);
        backend->setIsInternal(c.internal);
        backend->setUdid({"0123abc"});
        const auto answer = backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
        const std::string identifiers[] = {
            rig.identity.getPersistentIdentifierForDNU(true),
            rig.identity.getPersistentIdentifierForDNU(false),
            rig.identity.getPersistentIdentifierForCustomClientIDSuffix("app", "network"), "0123abc"};
        EXPECT_EQ(messageOf(rig.http.requests().at(0))["clientId"].GetString(), identifiers[c.expected])
            << c.what;
        // Only a consenting user's messages may be logged.
        EXPECT_EQ(answer.has_value(), !c.client.contains("override_dnu")) << c.what;
    }
}

TEST(HTTPSPostTransportTest, LoggingCanBeForcedInTwoEnvironments) {
    const struct {
        int environment;
        bool force;
        bool logged;
    } cases[] = {{1, true, true}, {2, true, true}, {3, true, false}, {4, true, false}, {1, false, false}};
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setDefault("environmentType", c.environment);
        rig.setDefault("forceEventLogging", c.force);
        const auto backend = rig.makeReportingBackend({{"override_dnu", 1}});
        const auto answer = backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
        EXPECT_EQ(answer.has_value(), c.logged) << c.environment;
    }
}

TEST(HTTPSPostTransportTest, TheAnswerDecidesOnTheBackend) {
    const struct {
        const char* what;
        HttpResult result;
        BackendState state;
        std::optional<TelvoraError> error;
        const char* line;
    } cases[] = {
        {"200", FakeHttpClient::response(200), BackendState::reporting, {}, nullptr},
        {"404", FakeHttpClient::response(404), BackendState::reporting, {}, nullptr},
        {"499", FakeHttpClient::response(499), BackendState::reporting, {}, nullptr},
        {"600", FakeHttpClient::response(600), BackendState::reporting, {}, nullptr},
        {"500", FakeHttpClient::response(500), BackendState::disabled,
         makeTelvoraError("backend httpPost disabled by server 500 return code", 500),
         "<6>postJSONMessage: backend httpPost disabled by server 500 return code"},
        {"599", FakeHttpClient::response(599), BackendState::disabled,
         makeTelvoraError("backend httpPost disabled by server 599 return code", 599), nullptr},
        {"transport", FakeHttpClient::failure("no route"), BackendState::reporting,
         makeTelvoraError("no route", -1), "<3>HTTPSPostBackend(postJsonMessage): post error: no route"},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        rig.http.setHandler(nullptr);
        auto backend = rig.makeReportingBackend();
        backend->setBatchEvents(true);
        backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
        int calls = 0;
        backend->flushMessagesWithCompletion([&](auto, const std::optional<TelvoraError>& error) {
            ++calls;
            EXPECT_EQ(error, c.error) << c.what;
        });
        const LogCapture log;
        rig.http.complete(c.result);
        EXPECT_EQ(calls, 1) << c.what;
        EXPECT_EQ(backend->state(), c.state) << c.what;
        if (c.line != nullptr) {
            EXPECT_TRUE(log.contains(c.line)) << c.what;
        }
    }
}

TEST(HTTPSPostTransportTest, APostOutlivesItsBackend) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    rig.http.setHandler(nullptr);
    auto backend = rig.makeReportingBackend();
    backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
    backend.reset();
    const LogCapture log;
    EXPECT_TRUE(rig.http.complete(FakeHttpClient::response(503)));
    EXPECT_TRUE(log.contains("<6>postJSONMessage: backend httpPost disabled by server 503 return code"));
}

TEST(HTTPSPostTransportTest, WithoutAURLNothingIsPosted) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setBatchEvents(true);
    backend->setPostURL(std::nullopt);
    backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
    std::optional<TelvoraError> error;
    const auto answer = backend->flushMessagesWithCompletion(
        [&](auto, std::optional<TelvoraError> e) { error = std::move(e); });
    EXPECT_TRUE(answer);
    EXPECT_EQ(error, makeTelvoraError("postURL is nil", -1));
    EXPECT_EQ(rig.http.requestCount(), 0u);
}

}  // namespace
}  // namespace telvora
