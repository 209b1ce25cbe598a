// SPDX-License-Identifier: Apache-2.0
//
// The backend as its callers see it: construction, sending, log data.
#include <gmock/gmock.h>

#include "platform/property_list_format.h"
#include "tests/unit/backends/dashboard_rig.h"

namespace telvora::test {
namespace {

using lab::FakeHttpClient;
using lab::VirtualNetwork;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct DashboardBackendTest : testing::Test, DashboardRig {};

TEST_F(DashboardBackendTest, ConstructionFailsWithALine) {
    const auto failing = [](void (*change)(VirtualNetwork&)) { return change; };
    const auto none = failing([](VirtualNetwork&) {});
    const struct {
        const char* what;
        BackendProfile profile;
        void (*change)(VirtualNetwork&);
        const char* line;
    } cases[] = {
        {"no profile", nullptr, none, "initWithName): initWitName with all null params."},
        {"no dictionary", std::make_shared<PropertyList>("x"), none,
         "initWithName): can't resolve server IP"},
        {"no ip", profileOf({{"port", 1}}), none, "initWithName): can't resolve server IP"},
        {"ip no text", profileOf({{"ip", 1}, {"port", 1}}), none, "initWithName): can't resolve server IP"},
        {"no port", profileOf({{"ip", "192.0.2.1"}}), none, "initWithName): can't resolve server port"},
        {"port no number", profileOf({{"ip", "192.0.2.1"}, {"port", "1"}}), none,
         "initWithName): can't resolve server port"},
        {"no socket", profileOf(collectorProfile()), failing([](VirtualNetwork& n) { n.socketError = 24; }),
         "initWithName): socket() failed (24)"},
        {"no connection", profileOf(collectorProfile({{"reliable", 500}})),
         failing([](VirtualNetwork& n) { n.connectError = 13; }), "initWithName): socket connect() failed."},
        {"no timer", profileOf(collectorProfile()), failing([](VirtualNetwork& n) { n.timerFails = true; }),
         "initWithName): can't create timer source."},
    };
    for (const auto& test : cases) {
        network.socketError = network.connectError = 0;
        network.timerFails = false;
        test.change(network);
        log.clear();
        EXPECT_EQ(DashboardBackend::make(services, "dashboard", test.profile, "PhoneOne"), nullptr)
            << test.what;
        EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend("s + test.line)) << test.what;
        network.runFor();
        EXPECT_EQ(network.openSockets, 0u) << test.what;
    }
    log.clear();
    EXPECT_EQ(DashboardBackend::make(services, "dashboard", std::nullopt, uint16_t{1}, "PhoneOne"), nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DashboardBackendTest, TheProfileTellsAddressURLsAndReliability) {
    const auto backend = makeBackend(collectorProfile(
        {{"port", (int64_t{1} << 32) + 65536 + 5000}, {"display_url", "https://show.example/"}}));
    ASSERT_TRUE(backend);
    EXPECT_THAT(network.peers, ElementsAre(Pair("192.0.2.1", 5000)));
    EXPECT_EQ(backend->displayURL(), "https://show.example/");
    EXPECT_EQ(makeBackend(collectorProfile())->displayURL(), std::nullopt);

    const struct {
        std::shared_ptr<DashboardBackend> backend;
        char mode;
    } modes[] = {{backend, 0},
                 {makeBackend(collectorProfile({{"reliable", 500}})), 1},
                 {DashboardBackend::make(services, "dashboard", "192.0.2.2", uint16_t{6000}, "PhoneOne"), 3}};
    EXPECT_THAT(network.peers.back(), Pair("192.0.2.2", 6000));
    for (const auto& [sender, mode] : modes) {
        network.sent.clear();
        send(*sender, 1);
        ASSERT_EQ(network.sent.size(), 1u);
        EXPECT_EQ(network.sent[0][63], mode);
    }
}

TEST_F(DashboardBackendTest, WithoutABoundSocketDeliveryIsUnreliable) {
    network.bindError = 98;
    const auto backend = makeBackend(collectorProfile({{"reliable", 500}}));
    ASSERT_TRUE(backend);
    EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend(useReliableUDP): can't bind socket, 98"));
    send(*backend, 1);
    EXPECT_EQ(network.sent[0][63], 0);
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardBackendTest, WithoutAReadSourceNoAcknowledgementIsRead) {
    network.readSourceFails = true;
    const auto backend = makeBackend(collectorProfile({{"reliable", 500}}));
    ASSERT_TRUE(backend);
    EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend(useReliableUDP): can't create read source"));
    send(*backend, 1);
    acknowledge(1);
    network.runFor(10s);
    EXPECT_THAT(takeSent(), ElementsAre(1, 1, 1, 1, 1));
    EXPECT_EQ(network.armedTimers, 0u);
}

TEST_F(DashboardBackendTest, TheFiveArgumentOperationSendsAndRenders) {
    const auto backend = makeBackend(collectorProfile());
    backend->setSelfVersion("2.9");
    backend->setCompType(18);
    backend->setSessionID(1);
    backend->setClientVersion(65535);
    DeviceIDBuffer udid{};
    udid[0] = 'D';
    backend->setUdid(udid);
    const auto line = backend->sendMessage(Dictionary{{"k", "v"}}, TimeValue{7, 8000}, 1, 2, EventID{3});
    EXPECT_EQ(line, "7.008 D 127.0.0.1 LINDQVAR 65535     1     3     1     2  k=v");
    EXPECT_THAT(network.sent, IsEmpty());  // that is the queue's business
    network.runFor();
    EXPECT_THAT(network.sent,
                ElementsAre("\x02\x12\x01\x02\x00\x00\x00\x07\xff\xff\xff\xfe\x00\x00\xff\xbb\x00\x01\x00\x02"
                            "D"s +
                            std::string(39, '\0') + "\x00\x03\x00\x00 k=v"s));

    // No payload at all; a component type beyond the table, and beyond a byte.
    backend->setCompType(256 + 19);
    EXPECT_EQ(backend->sendMessage(std::nullopt, TimeValue{7, 8000}, 1, 2, EventID{3}),
              "7.008 D 127.0.0.1  65535     1     3     1     2 ");
    network.runFor();
    EXPECT_EQ(network.sent.back().size(), 64u);
    EXPECT_EQ(network.sent.back()[1], 19);
}

struct LogDataTest : DashboardBackendTest {
    const Array records{Dictionary{{"n", 1}, {"msg", "hi"}}};
    std::shared_ptr<DashboardBackend> backend =
        makeBackend(collectorProfile({{"post_url", "https://log.example/"}, {"reliable", 500}}));
};

TEST_F(LogDataTest, IsPostedAsABinaryPropertyList) {
    http.setHandler([](const HttpRequest&) { return FakeHttpClient::response(500, "https://at.example/1"); });
    EXPECT_TRUE(backend->uploadLogData(records));
    ASSERT_EQ(http.requestCount(), 1u);
    const HttpRequest request = http.requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.url, "https://log.example/");
    EXPECT_THAT(request.headers, ElementsAre(Pair("Content-Type", "application/octet-stream")));
    EXPECT_EQ(request.timeout, std::nullopt);
    // The example of docs/formats.md.
    EXPECT_EQ(request.body,
              "bplist00\xa1\x01\xd2\x02\x03\x04\x05Smsg"
              "QnRhi\x10\x01\x08\x0a\x0f\x13\x15\x18"s +
                  "\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x1a"s);
    EXPECT_THAT(log.lines(), ElementsAre("<7>DashboardBackend(uploadLogData): Log data uploaded to "
                                         "https://at.example/1"));
    // Its own report goes the way of all reports of sessions.
    EXPECT_EQ(backend->eventID(), 1);
    network.runFor();
    EXPECT_THAT(network.sent, IsEmpty());

    EXPECT_TRUE(backend->uploadLogData({}));
    EXPECT_EQ(parsePropertyList(http.requests()[1].body), PropertyList(Array()));
}

TEST_F(LogDataTest, FailsWithALine) {
    constexpr char kError[] = "<3>DashboardBackend(uploadLogData): Error uploading log data array ";
    const struct {
        HttpResult result;
        std::string line;
    } cases[] = {
        {FakeHttpClient::failure("no route"), kError + "(no route)"s},
        {FakeHttpClient::response(200, ""), kError + "((null))"s},
        {FakeHttpClient::response(200, "\xff\xfe"), kError + "(the answer is not UTF-8 text)"s},
    };
    for (const auto& test : cases) {
        log.clear();
        http.setHandler([&test](const HttpRequest&) { return test.result; });
        EXPECT_FALSE(backend->uploadLogData(records));
        EXPECT_THAT(log.lines(), ElementsAre(test.line));
    }

    // Deeper than any archive may be.
    PropertyList nested = Array();
    for (int i = 0; i < 100; ++i)
        nested = Array{std::move(nested)};
    log.clear();
    EXPECT_FALSE(backend->uploadLogData({nested}));
    EXPECT_THAT(log.lines(), ElementsAre("<3>DashboardBackend(uploadLogData): Failed to serialize log data "
                                         "array for upload"));

    log.clear();
    const size_t requests = http.requestCount();
    EXPECT_FALSE(makeBackend(collectorProfile())->uploadLogData(records));
    EXPECT_FALSE(
        DashboardBackend::make(services, "dashboard", "192.0.2.1", uint16_t{1}, {})->uploadLogData({}));
    EXPECT_THAT(log.lines(),
                testing::Each("<3>DashboardBackend(uploadLogData): Post URL for log data array is nil"));
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(http.requestCount(), requests);
    EXPECT_EQ(backend->eventID(), 0);
}

}  // namespace
}  // namespace telvora::test
