// SPDX-License-Identifier: Apache-2.0
//
// The backend as its callers see it: construction, sending, log data.
#include <gmock/gmock.h>

#include "tests/support/daemon_world.h"
#include "tests/unit/dashboard/dashboard_rig.h"

namespace telvora::test {
namespace {

using namespace std::string_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;

struct DashboardBackendTest : testing::Test, DashboardRig {};

TEST_F(DashboardBackendTest, ConstructionFailsWithALine) {
    const BackendProfile good = profileOf(collectorProfile({{"reliable", 500}}));
    // The profile, the errors of the socket, of its connection and of the timer, and the line.
    const std::tuple<BackendProfile, int, int, bool, std::string> cases[] = {
        {nullptr, 0, 0, false, "initWitName with all null params."},
        {std::make_shared<PropertyList>("x"), 0, 0, false, "can't resolve server IP"},
        {profileOf({{"port", 1}}), 0, 0, false, "can't resolve server IP"},
        {profileOf({{"ip", 1}, {"port", 1}}), 0, 0, false, "can't resolve server IP"},
        {profileOf({{"ip", "192.0.2.1"}}), 0, 0, false, "can't resolve server port"},
        {profileOf({{"ip", "192.0.2.1"}, {"port", "1"}}), 0, 0, false, "can't resolve server port"},
        {good, 24, 0, false, "socket() failed (24)"},
        {good, 0, 13, false, "socket connect() failed."},
        {good, 0, 0, true, "can't create timer source."}};
    for (const auto& [profile, socketError, connectError, timerFails, line] : cases) {
        network.socketError = socketError;
        network.connectError = connectError;
        network.timerFails = timerFails;
        log.clear();
        EXPECT_FALSE(DashboardBackend::make(services, "dashboard", profile, shared(identityOf(7))));
        EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend(initWithName): " + line));
        network.runFor();
        EXPECT_EQ(network.openSockets, 0u) << line;
    }
}

TEST_F(DashboardBackendTest, WithoutABoundSocketOrAReadSourceNoAcknowledgementIsAwaited) {
    const std::tuple<int, const char*, std::vector<int>> cases[] = {
        {98, "can't bind socket, 98", {1}}, {0, "can't create read source", {1, 1, 1, 1, 1}}};
    network.readSourceFails = true;
    for (const auto& [bindError, line, sent] : cases) {
        network.bindError = bindError;
        log.clear();
        const auto backend = makeBackend(collectorProfile({{"reliable", 500}}));
        EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend(useReliableUDP): "s + line));
        send(*backend, 1);
        acknowledge(1);
        network.runFor(10s);
        EXPECT_EQ(takeSent(), sent);
        EXPECT_EQ(network.armedTimers, 0u);
    }
}

TEST_F(DashboardBackendTest, TheFiveArgumentOperationSendsAndRenders) {
    BackendIdentity given{.sessionID = 1, .compType = 256 + 18, .clientVersion = 65535, .udid = {"D"}};
    given.selfVersion = SelfVersion("2.9");
    // Of the port the low 16 bits count, of the component a byte.
    const auto backend = makeBackend(collectorProfile({{"port", (int64_t{1} << 32) + 65536 + 5000}}), given);
    EXPECT_THAT(network.peers, ElementsAre(Pair("192.0.2.1", 5000)));
    EXPECT_EQ(backend->sendMessage(Dictionary{{"k", "v"}}, TimeValue{7, 8000}, 1, 2, EventID{3}),
              "7.008 D 127.0.0.1 LINDQVAR 65535     1     3     1     2  k=v");
    backend->sendMessage(std::nullopt, TimeValue{7, 8000}, 1, 2, EventID{3});
    EXPECT_TRUE(network.sent.empty());  // that is the queue's business
    network.runFor();
    ASSERT_EQ(network.sent.size(), 2u);
    EXPECT_EQ(network.sent[0].substr(0, 4) + network.sent[0].substr(60), "\x02\x12\x01\x02\0\x03\0\0 k=v"s);
    EXPECT_EQ(network.sent[1].size(), 64u);
}

// A dashboard has no answer in a session. Of two HTTPS backends the later one answers.
TEST(DashboardInSession, AnHTTPSAnswerGoesBeforeTheDashboards) {
    const auto httpPost = [](const Dictionary& changes) {
        return *DaemonWorld::reportingBag(changes).dictionary("release")->find("httpPost");
    };
    const Array filters{Dictionary{{"key", "secret"}, {"action", "remove"}}};
    DaemonWorld world;
    world.serveBag(Dictionary{{"release", Dictionary{{"dashboard", DashboardRig::collectorProfile()},
                                                     {"httpPost", httpPost({})},
                                                     {"httpPost2", httpPost({{"filters", filters}})}}}});
    std::optional<std::string> answer;
    world.connectConfigured(1)->session().sendMessageWithDictionary(
        {{kTelvoraMessageParametersCategory, 5},
         {kTelvoraMessageParametersType, 1},
         {kTelvoraMessageParametersPayload, Dictionary{{"secret", 1}, {"open", 2}}}},
        [&answer](const auto& told) { answer = told; });
    ASSERT_TRUE(answer);
    EXPECT_THAT(*answer, AllOf(HasSubstr("open"), Not(HasSubstr("secret"))));
    EXPECT_TRUE(world.network.sent.empty());
}

struct LogDataTest : DashboardBackendTest {
    static bool upload(DashboardBackend& to, const Array& data) {
        bool done = false;
        to.uploadLogData(
            data, [](const auto& work) { work(); }, [&done](bool uploaded) { done = uploaded; });
        return done;
    }

    const Array records{Dictionary{{"n", 1}, {"msg", "hi"}}};
    std::shared_ptr<DashboardBackend> backend =
        makeBackend(collectorProfile({{"post_url", "https://log.example/"}}));
};

TEST_F(LogDataTest, IsPostedAsABinaryPropertyList) {
    http.setHandler([](const HttpRequest&) { return FakeHttpClient::response(500, "https://at.example/1"); });
    EXPECT_TRUE(upload(*backend, records));
    ASSERT_EQ(http.requestCount(), 1u);
    const HttpRequest request = http.requests()[0];
    EXPECT_EQ(request.method + " " + request.url, "POST https://log.example/");
    EXPECT_THAT(request.headers, ElementsAre(Pair("Content-Type", "application/octet-stream")));
    // The example of docs/formats.md.
    EXPECT_EQ(request.body, "bplist00\xa1\x01\xd2\x02\x03\x04\x05SmsgQnRhi\x10\x01\x08\x0a\x0f\x13\x15\x18"s +
                                "\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x1a"s);
    // Its own report goes the way of all reports of sessions.
    EXPECT_EQ(backend->eventID(), 1);
    network.runFor();
    EXPECT_TRUE(network.sent.empty());
}

TEST_F(LogDataTest, FailsWithALine) {
    PropertyList nested = Array();
    for (int i = 0; i < 100; ++i)
        nested = Array{std::move(nested)};
    const auto withoutURL = makeBackend(collectorProfile());
    const std::string uploading = "Error uploading log data array ";
    const std::tuple<std::shared_ptr<DashboardBackend>, Array, HttpResult, std::string, size_t> cases[] = {
        {backend, records, FakeHttpClient::failure("no route"), uploading + "(no route)", 1},
        {backend, records, FakeHttpClient::response(200, ""), uploading + "((null))", 1},
        {backend, records, FakeHttpClient::response(200, "\xff\xfe"),
         uploading + "(the answer is not UTF-8 text)", 1},
        {backend, {nested}, {}, "Failed to serialize log data array for upload", 0},
        {withoutURL, records, {}, "Post URL for log data array is nil", 0}};
    for (const auto& [uploader, uploaded, answer, line, requests] : cases) {
        log.clear();
        http.setHandler([&result = answer](const HttpRequest&) { return result; });
        const size_t before = http.requestCount();
        EXPECT_FALSE(upload(*uploader, uploaded));
        EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend(uploadLogData): " + line));
        EXPECT_EQ(http.requestCount(), before + requests);
    }
    EXPECT_EQ(backend->eventID(), 0);
}

}  // namespace
}  // namespace telvora::test
