// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "session/backend_factory.h"
#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "util/file_url.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;

const Dictionary kUser = userInfoOf("client", "service");

// A daemon whose sessions report.
struct SessionTest : testing::Test {
    SessionTest() { world.serveBag(DaemonWorld::reportingBag()); }

    LogCapture log;
    DaemonWorld world;
};

TEST_F(SessionTest, StartMessageDescribesTheDeviceOnInternalBuildsOnly) {
    const std::pair<Dictionary, std::vector<std::string>> cases[] = {
        {{{"DeviceName", "phone"}}, {"AutomaticTimeSet", "Locale"}},
        {{{"DeviceName", "phone"}, {"ReleaseType", "Internal"}, {"SerialNumber", "s1"}},
         {"AutomaticTimeSet", "Build", "Hardware", "Locale", "Product", "ReportVers", "SerialNum",
          "Version"}},
    };
    for (const auto& [device, expected] : cases) {
        DaemonWorld onDevice(device);
        Dictionary bag = DaemonWorld::reportingBag();
        bag.set("zandor_internal", *bag.find("release"));
        onDevice.serveBag(bag);
        const auto connection = onDevice.connectConfigured(1);
        const auto events = onDevice.postedEvents();
        ASSERT_EQ(events.size(), 1U);
        std::vector<std::string> keys;
        for (const auto& [key, value] : events.front()) {
            const bool ofBackend = key.starts_with("_") || key == "eventTime" || key.starts_with("Telvora");
            if (!ofBackend) keys.push_back(key);
        }
        EXPECT_EQ(keys, expected);
        EXPECT_TRUE(events.front().boolean("AutomaticTimeSet"));
    }
}

TEST_F(SessionTest, MessagesNeedTheirMandatoryParameters) {
    world.serveBag(DaemonWorld::reportingBag({{"realtime_post_url", "https://realtime.example/"}}));
    const auto connection = world.connectConfigured(1);
    const auto send = [&](Dictionary message) {
        connection->session().sendMessageWithDictionary(std::move(message), [](const auto&) {});
    };
    const size_t before = world.postedEvents().size();
    const std::pair<Dictionary, std::string> refused[] = {
        {{{kTelvoraMessageParametersType, 1}}, "category"},
        {{{kTelvoraMessageParametersCategory, 1}}, "type"},
        {{{kTelvoraMessageParametersCategory, Array()}, {kTelvoraMessageParametersType, 1}}, "category"},
    };
    for (const auto& [message, missing] : refused) {
        send(message);
        EXPECT_EQ(log.lines().back(),
                  "<7>sendMessageWithDictionary: Missing mandatory parameter '" + missing + "'");
    }
    EXPECT_EQ(world.postedEvents().size(), before);

    send({{kTelvoraMessageParametersCategory, 65536 + 9},
          {kTelvoraMessageParametersType, 65536 + 4},
          {kTelvoraMessageParametersFlag, 1},
          {kTelvoraMessageParametersPayload, "no dictionary"}});
    EXPECT_EQ(world.http.requests().back().url, "https://realtime.example/");
    EXPECT_EQ(world.postedEvents().back().integer("_method"), 9) << "only the low 16 bits count";
    EXPECT_EQ(world.postedEvents().back().integer("_status"), 4);
}

TEST_F(SessionTest, ListsDropACategoryPerBackend) {
    world.serveBag(
        DaemonWorld::reportingBag({{"event_whitelist", Array{0, 5, 6}}, {"event_blacklist", Array{6}}}));
    const auto connection = world.connectConfigured(1);
    for (const uint16_t category : {5, 6, 7})
        connection->session().sendMessageWithCategory(category, 1, std::nullopt, [](const auto&) {});
    std::vector<int64_t> categories;
    for (const Dictionary& event : world.postedEvents())
        categories.push_back(*event.integer("_method"));
    EXPECT_THAT(categories, ElementsAre(0, 5));
    for (const std::string dropped : {"7 as it is not whitelisted", "6 as it is blacklisted"})
        EXPECT_TRUE(log.contains("<7>sendMessageWithDictionary: Dropping event with category " + dropped +
                                 " for backend httpPost"));
}

TEST_F(SessionTest, OnlyChangedNamesCountAsNewUserInfo) {
    const auto connection = world.connectConfigured(1);
    Dictionary more = kUser;
    more.set("extra", 1);
    Dictionary renamed = kUser;
    renamed.set(kTelvoraUserInfoServiceName, "other");
    const struct {
        std::optional<Dictionary> userInfo;
        bool announced;
        Dictionary kept;
    } steps[] = {{more, false, more}, {renamed, true, renamed}, {std::nullopt, false, renamed}};
    for (const auto& step : steps) {
        log.clear();
        connection->session().fetchStatesWithUserInfo(step.userInfo, [](const auto&) {});
        EXPECT_EQ(log.contains("<7>receivedUserInfo: Received new user info for session 1"), step.announced);
        EXPECT_EQ(*connection->session().userInfo(), step.kept);
    }
}

TEST_F(SessionTest, OneShotMessagesUseBackendsOfTheirOwn) {
    world.serveBag(std::nullopt);
    const auto connection = world.connect();
    std::vector<std::string> outcomes;
    const auto send = [&](Dictionary info, std::optional<Dictionary> user) {
        connection->session().sendMessageWithSessionInfo(
            std::move(info), std::move(user), 8, 3, Dictionary{{"k", 1}},
            [&](std::string outcome) { outcomes.push_back(std::move(outcome)); });
    };
    send({{kTelvoraSessionInfoSessionID, 1}}, std::nullopt);  // no client type: no answer
    send({{kTelvoraSessionInfoSessionID, 4}, {kTelvoraSessionInfoClientType, 5}}, std::nullopt);
    world.now += 1000;
    world.serveBag(DaemonWorld::reportingBag());
    send(Dictionary::merged(sessionInfoFor(77), {{kTelvoraSessionInfoClientVersion, 65536 + 3}}), kUser);
    EXPECT_THAT(outcomes, ElementsAre("storebag not available", "finished"));
    EXPECT_EQ(connection->session().sessionID(), 77U) << "the session takes over the identity";
    EXPECT_EQ(*connection->session().userInfo(), kUser);
    ASSERT_EQ(world.postedEvents().size(), 1U);
    EXPECT_EQ(world.postedEvents()[0].integer("_method"), 8);
    EXPECT_EQ(world.postedEvents()[0].integer("_clientVersion"), 3);

    world.now += 100'000;  // the bag before is stale by then
    world.serveBag(DaemonWorld::reportingBag({{"event_blacklist", Array{8}}}));
    send(sessionInfoFor(77), kUser);
    EXPECT_EQ(outcomes.back(), "finished");
    EXPECT_EQ(world.postedEvents().size(), 1U) << "no report of an excluded category";
}

TEST_F(SessionTest, TheDisplayURLIsThatOfTheFirstBackendThatHasOne) {
    const Dictionary none{{"clients", Array{}}};
    const auto showing = [&](const char* url) { return Dictionary::merged(none, {{"display_url", url}}); };
    for (const auto& [first, expected] : {std::pair{none, "two"}, {showing("one"), "one"}}) {
        world.now += 100'000;  // the bag before is stale by then
        world.serveBag(
            Dictionary{{"release", Dictionary{{"httpPost", first}, {"httpPost2", showing("two")}}}});
        std::string url;
        world.connectConfigured(1)->session().fetchDisplayURL([&url](const auto& told) { url = told; });
        EXPECT_EQ(url, expected);
    }
}

TEST_F(SessionTest, AFlushOfNoBackendsIsNeverAnsweredWithoutConfigurationItFails) {
    world.serveBag(Dictionary{{"release", Dictionary{{"unknown", Dictionary()}}}});
    const auto connection = world.connect();
    std::vector<std::string> errors;
    const auto flush = [&] {
        connection->session().flushMessagesWithCompletion(
            [&](const auto&, const auto& error) { errors.push_back(error->description); });
    };
    flush();
    connection->session().setSessionInfo(sessionInfoFor(1), kUser, {}, false);
    connection->session().startConfigWithCompletionHandler([](const auto&) {});
    flush();
    EXPECT_THAT(errors, ElementsAre("No backends available to send message"));
}

TEST_F(SessionTest, AFlushWaitsForEachBackendAlsoWhenMemoryEndsBehindOne) {
    const PropertyList backend = *DaemonWorld::reportingBag().dictionary("release")->find("httpPost");
    world.serveBag(Dictionary{{"release", Dictionary{{"httpPost", backend}, {"httpPost2", backend}}}});
    const auto connection = world.connect();
    TelvoradSession& session = connection->session();
    session.setSessionInfo(Dictionary::merged(sessionInfoFor(1), {{kTelvoraSessionInfoBatchEvent, true}}),
                           kUser, {}, false);
    session.startConfigWithCompletionHandler([](const auto&) {});
    session.sendMessageWithCategory(4, 1, std::nullopt, [](const auto&) {});
    std::vector<bool> answers;
    world.http.throwsAfterCompletion = true;
    session.flushMessagesWithCompletion([&](const auto&, const auto& error) { answers.push_back(!error); });
    EXPECT_THAT(answers, ElementsAre(true));

    // The answer to one post goes for lack of memory while the other post waits.
    world.http.setHandler(nullptr);
    session.sendMessageWithCategory(4, 1, std::nullopt, [](const auto&) {});
    session.flushMessagesWithCompletion([&](const auto&, const auto& error) { answers.push_back(!error); });
    world.http.takeOldest();
    EXPECT_TRUE(world.http.complete(FakeHttpClient::response(200)));
    EXPECT_THAT(answers, ElementsAre(true, false));
    world.http.setHandler([](const auto&) { return FakeHttpClient::response(200); });
}

TEST_F(SessionTest, TheEndSendsTheEndMessageWithTheBagsVersion) {
    world.connectConfigured(1)->invalidate();
    const Dictionary end = world.postedEvents().back();
    EXPECT_EQ(end.integer("_method"), 0);
    EXPECT_EQ(end.integer("_status"), 1);
    EXPECT_EQ(*end.string("StorebagVersion"), "1.0");
    EXPECT_EQ(end.integer("Opt"), 0);
}

TEST(BackendFactory, MakesTheBackendOfTheName) {
    const BackendProfile profile = profileOf({{"clients", Array{}}});
    const SharedIdentity identity = shared(identityOf(7));
    const BackendRig rig, halcyra({{"ProductType", "Halcyra"}});  // has no metrics adaptor
    for (const char* name : {kTelvoraBackendHTTPPost, kTelvoraBackendHTTPPost2}) {
        const auto backend = newBackendWithName(rig.services, name, profile, identity);
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->name(), name);
    }
    for (const char* name : {"refresh_cycle", "httppost", "", kTelvoraBackendVodex}) {
        const LogCapture log;
        EXPECT_EQ(newBackendWithName(halcyra.services, name, profile, identity), nullptr);
        EXPECT_TRUE(log.contains(std::string("<3>TelvoraBackend(newBackendWithName): ") + name));
    }
}

TEST(FileURL, GivesItsPath) {
    const std::pair<const char*, const char*> cases[] = {
        {"file:///a%20b", "/a b"},  {"file://localhost/x", "/x"}, {"file:/x", "/x"},
        {"/plain%20", "/plain%20"}, {"file://other/x", ""},       {"file:///a%2", ""},
        {"file:///a%zz", ""},       {"file:///a%00b", ""},        {"file:///%C3%A4%25", "/ä%"}};
    for (const auto& [url, path] : cases)
        EXPECT_EQ(pathOfFileURL(url), path) << url;
}

}  // namespace
}  // namespace telvora::test
