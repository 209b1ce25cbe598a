// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "session/file_url.h"
#include "telvora/keys.h"
#include "tests/support/daemon_world.h"
#include "tests/support/log_capture.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::Optional;

const Dictionary kUser{{kTelvoraUserInfoClientName, "client"}, {kTelvoraUserInfoServiceName, "service"}};

Dictionary reportingClient() {
    return {{"filters", Array()},
            {"sampling_threshold", 1.0},
            {"locale_whitelist", "CH"},
            {"post_url", "https://reports.example/events"}};
}

// The answer to a message of this dictionary.
std::optional<std::string> answerTo(FakeConnection& connection, Dictionary message) {
    std::optional<std::string> answer;
    connection.session().sendMessageWithDictionary(std::move(message),
                                                   [&](auto a) { answer = std::move(a); });
    return answer;
}

TEST(Session, StartMessageTellsOfTheDeviceOnInternalBuildsOnly) {
    const struct {
        Dictionary device;
        std::vector<std::string> keys;
    } cases[] = {
        {{{"DeviceName", "phone"}}, {"AutomaticTimeSet", "Locale"}},
        {{{"DeviceName", "phone"}, {"ReleaseType", "Internal"}, {"SerialNumber", "s1"}},
         {"AutomaticTimeSet", "Build", "Hardware", "Locale", "Product", "ReportVers", "SerialNum",
          "Version"}},
    };
    for (const auto& c : cases) {
        DaemonWorld world(c.device);
        Dictionary bag = DaemonWorld::bagWithClient(reportingClient());
        bag.set("zandor_internal", *bag.find("release"));
        world.serveBag(bag);
        const auto connection = world.connectConfigured(1);
        const auto events = world.postedEvents();
        ASSERT_EQ(events.size(), 1U);
        std::vector<std::string> keys;
        for (const auto& [key, value] : events.front()) {
            const bool ofBackend = key.starts_with("_") || key == "eventTime" || key.starts_with("Telvora");
            if (!ofBackend) keys.push_back(key);
        }
        EXPECT_EQ(keys, c.keys);
        EXPECT_TRUE(events.front().boolean("AutomaticTimeSet"));
    }
}

TEST(Session, MessagesNeedTheirMandatoryParameters) {
    DaemonWorld world;
    world.serveBag(DaemonWorld::bagWithClient(reportingClient()));
    const auto connection = world.connectConfigured(1);
    const size_t before = world.postedEvents().size();
    const struct {
        Dictionary message;
        const char* line;
    } refused[] = {
        {{{kTelvoraMessageParametersType, 1}},
         "<7>sendMessageWithDictionary: Missing mandatory parameter 'category'"},
        {{{kTelvoraMessageParametersCategory, 1}},
         "<7>sendMessageWithDictionary: Missing mandatory parameter 'type'"},
        {{{kTelvoraMessageParametersCategory, Array()}, {kTelvoraMessageParametersType, 1}},
         "<7>sendMessageWithDictionary: Missing mandatory parameter 'category'"},
    };
    for (const auto& r : refused) {
        const LogCapture log;
        answerTo(*connection, r.message);
        EXPECT_TRUE(log.contains(r.line)) << r.line;
    }
    EXPECT_EQ(world.postedEvents().size(), before);

    answerTo(*connection, {{kTelvoraMessageParametersCategory, 65536 + 9},
                           {kTelvoraMessageParametersType, 65536 + 4},
                           {kTelvoraMessageParametersPayload, "no dictionary"}});
    const Dictionary event = world.postedEvents().back();
    EXPECT_EQ(event.integer("_method"), 9) << "only the low 16 bits count";
    EXPECT_EQ(event.integer("_status"), 4);
}

TEST(Session, ListsDropACategoryPerBackend) {
    Dictionary client = reportingClient();
    client.set("event_whitelist", Array{0, 5, 6});
    client.set("event_blacklist", Array{6});
    const LogCapture log;
    DaemonWorld world;
    world.serveBag(DaemonWorld::bagWithClient(client));
    const auto connection = world.connectConfigured(1);
    for (const uint16_t category : {5, 6, 7}) {
        connection->session().sendMessageWithCategory(category, 1, std::nullopt, [](const auto&) {});
    }
    std::vector<int64_t> categories;
    for (const Dictionary& event : world.postedEvents())
        categories.push_back(*event.integer("_method"));
    EXPECT_THAT(categories, ElementsAre(0, 5));
    EXPECT_TRUE(
        log.contains("<7>sendMessageWithDictionary: Dropping event with category 7 as it is not whitelisted "
                     "for backend httpPost"));
    EXPECT_TRUE(
        log.contains("<7>sendMessageWithDictionary: Dropping event with category 6 as it is blacklisted for "
                     "backend httpPost"));
}

TEST(Session, OnlyChangedNamesCountAsNewUserInfo) {
    DaemonWorld world;
    world.serveBag(DaemonWorld::bagWithClient(reportingClient()));
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
        const LogCapture log;
        connection->session().fetchStatesWithUserInfo(step.userInfo, [](const auto&) {});
        EXPECT_EQ(log.contains("<7>receivedUserInfo: Received new user info for session 1"), step.announced);
        EXPECT_EQ(*connection->session().userInfo(), step.kept);
    }
}

TEST(Session, OneShotMessagesUseBackendsOfTheirOwn) {
    DaemonWorld world;
    const auto connection = world.connect();
    std::vector<std::string> outcomes;
    const auto send = [&](Dictionary info, std::optional<Dictionary> user) {
        connection->session().sendMessageWithSessionInfo(
            std::move(info), std::move(user), 8, 3, Dictionary{{"k", 1}},
            [&](auto outcome) { outcomes.push_back(outcome.value_or("nothing")); });
    };
    send({{kTelvoraSessionInfoSessionID, 1}}, std::nullopt);  // no client type: no answer
    send({{kTelvoraSessionInfoSessionID, 4}, {kTelvoraSessionInfoClientType, 5}}, std::nullopt);
    world.now += 1000;
    world.serveBag(DaemonWorld::bagWithClient(reportingClient()));
    send(sessionInfoFor(77), kUser);
    EXPECT_THAT(outcomes, ElementsAre("storebag not available", "finished"));
    EXPECT_EQ(connection->session().sessionID(), 77U) << "the session takes over the identity";
    const auto events = world.postedEvents();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].integer("_method"), 8);
}

TEST(Session, DisplayURLFallsBack) {
    DaemonWorld world;
    const Dictionary clients{{"clients", Array{reportingClient()}}};
    Dictionary withURL = clients;
    withURL.set("display_url", "https://show.example");
    world.serveBag(Dictionary{{"release", Dictionary{{"httpPost", clients}, {"httpPost2", withURL}}}});
    const auto connection = world.connect();
    std::vector<std::string> urls;
    const auto fetch = [&] { connection->session().fetchDisplayURL([&](auto url) { urls.push_back(url); }); };
    fetch();
    connection->session().setSessionInfo(sessionInfoFor(1), kUser, {}, false);
    connection->session().startConfigWithCompletionHandler([](const auto&) {});
    fetch();
    EXPECT_THAT(urls, ElementsAre("URL not available", "https://show.example"));
}

TEST(Session, AFlushOfNoBackendsIsNeverAnsweredWithoutConfigurationItFails) {
    DaemonWorld world;
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

TEST(Session, TheEndSendsTheEndMessageWithTheBagsVersion) {
    DaemonWorld world;
    world.serveBag(DaemonWorld::bagWithClient(reportingClient()));
    const auto connection = world.connectConfigured(1);
    connection->invalidate();
    const Dictionary end = world.postedEvents().back();
    EXPECT_EQ(end.integer("_method"), 0);
    EXPECT_EQ(end.integer("_status"), 1);
    EXPECT_EQ(*end.string("StorebagVersion"), "1");
    EXPECT_EQ(end.integer("Opt"), 0);
}

TEST(FileURL, GivesItsPath) {
    const struct {
        const char* url;
        const char* path;
    } cases[] = {{"file:///a%20b", "/a b"},  {"file://localhost/x", "/x"}, {"file:/x", "/x"},
                 {"/plain%20", "/plain%20"}, {"file://other/x", ""},       {"file:///a%2", ""},
                 {"file:///a%zz", ""},       {"file:///a%00b", ""},        {"file:///%C3%A4%25", "/ä%"}};
    for (const auto& c : cases)
        EXPECT_EQ(pathOfFileURL(c.url), c.path) << c.url;
}

}  // namespace
}  // namespace telvora::test
