// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora {
namespace {

using test::HTTPSPostRig;
using test::LogCapture;
using test::profileOf;
using test::shared;
using test::userInfoOf;
using testing::Contains;
using testing::HasSubstr;

constexpr auto kWaiting = BackendState::waitingForUserInfo;
constexpr auto kDisabled = BackendState::disabled;
constexpr auto kReporting = BackendState::reporting;
constexpr auto kSampledOut = BackendState::sampledOut;

TEST(HTTPSPostStateTest, NeedsProfileFamilyAndClients) {
    HTTPSPostRig rig;
    const LogCapture log;
    const BackendProfile good = profileOf({{"clients", Array{}}});
    EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", nullptr, "family"), nullptr);
    EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", good, std::nullopt), nullptr);
    EXPECT_TRUE(log.lines().empty());
    const BackendProfile bad[] = {profileOf({}), profileOf({{"clients", Dictionary{}}}),
                                  std::make_shared<const PropertyList>("text")};
    for (const BackendProfile& profile : bad)
        EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", profile, "family"), nullptr);
    EXPECT_EQ(log.count("<3>HTTPSPostBackend(initWithName): can't find the client list."), 3u);
}

struct StateCase {
    const char* what;
    Dictionary changes;               // to an entry that reports
    std::vector<const char*> absent;  // keys taken out of it
    BackendState state;
    const char* line;  // one of the lines that tell why; null: not looked at
};

// The rig's device: country CH, family "PhoneOne", hardware "Model1,1", version 3.1.9, factor 0.3.
const StateCase kStateCases[] = {
    {"reports",
     {},
     {},
     kReporting,
     "<7>HTTPSPostBackend(updateBackendState): httpPost: client found app:network, state=2, "
     "samplingFactor=0.300000"},
    {"other client", {{"client", "other"}}, {}, kDisabled, nullptr},
    {"one of the clients", {{"client", "x,APP"}}, {}, kReporting, nullptr},
    {"client is matched whole", {{"client", "ap"}}, {}, kDisabled, nullptr},
    {"service is matched in part", {{"service", "NET"}}, {}, kReporting, nullptr},
    {"other service", {{"service", "disk"}}, {}, kDisabled, nullptr},
    {"hostile names count as absent", {{"client", 7}, {"service", Array{}}}, {}, kReporting, nullptr},
    {"version is newer", {{"enabledSince", "3.1"}}, {}, kReporting, nullptr},
    {"version is equal", {{"enabledSince", "3.1.9"}}, {}, kReporting, nullptr},
    {"version is older", {{"enabledSince", "3.2"}}, {}, kDisabled, nullptr},
    {"version wraps", {{"enabledSince", "258.256"}}, {}, kReporting, nullptr},
    {"consent overridden by a text",
     {{"override_dnu", "1"}},
     {},
     kDisabled,
     "<7>HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 0."},
    {"no consent",
     {{"override_dnu", 2}},
     {},
     kDisabled,
     "<7>HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 2."},
    {"no list of countries",
     {},
     {"locale_whitelist"},
     kDisabled,
     "<7>HTTPSPostBackend(updateBackendState): (CH) isn't in country code list (null)"},
    {"other countries",
     {{"locale_whitelist", "DE,FR"}},
     {},
     kDisabled,
     "<7>HTTPSPostBackend(updateBackendState): (CH) isn't in country code list DE,FR"},
    {"country in lower case", {{"locale_whitelist", "de,ch"}}, {}, kReporting, nullptr},
    {"family not listed",
     {{"device_whitelist", "Tablet,Watch"}},
     {},
     kDisabled,
     "<7>HTTPSPostBackend(updateBackendState): (PhoneOne) isn't in device whitelist Tablet,Watch"},
    {"family listed", {{"device_whitelist", "Tablet,phone"}}, {}, kReporting, nullptr},
    {"hardware listed",
     {{"device_blacklist", "Model2,model1"}},
     {},
     kDisabled,
     "<7>HTTPSPostBackend(updateBackendState): (Model1,1) is in device blacklist Model2,model1"},
    {"no filters",
     {},
     {"filters"},
     kDisabled,
     "<4>HTTPSPostBackend(updateBackendState): filters are required."},
    {"hostile filters",
     {{"filters", "x"}},
     {},
     kDisabled,
     "<4>HTTPSPostBackend(updateBackendState): filters are required."},
    {"no threshold", {}, {"sampling_threshold"}, kDisabled, nullptr},
    {"factor at the threshold", {{"sampling_threshold", 0.3}}, {}, kReporting, nullptr},
    {"sampled out", {{"sampling_threshold", 0.2}}, {}, kSampledOut, nullptr},
    {"sampled out below the override",
     {{"sampling_threshold", 0.2}, {"override_sampling", 0.4}},
     {},
     kSampledOut,
     nullptr},
    {"above the override",
     {{"sampling_threshold", 0.2}, {"override_sampling", 0.25}},
     {},
     kDisabled,
     nullptr},
    {"country's threshold",
     {{"per_country_sampling_thresholds",
       Array{7, Dictionary{{"country", "CH"}, {"threshold", 1}},
             Dictionary{{"country", Array{"DE", "CH"}}, {"threshold", 0.1}},
             Dictionary{{"country", Array{"CH"}}, {"threshold", 1}}}}},
     {},
     kSampledOut,
     "<7>HTTPSPostBackend(updateBackendState): sampling threshold for CH changed from 0.50 to 0.10"},
    {"country without threshold",
     {{"per_country_sampling_thresholds", Array{Dictionary{{"country", Array{"CH"}}}}}},
     {},
     kDisabled,
     nullptr},
    {"event lists",
     {{"event_whitelist", Array{1, 2}}, {"event_blacklist", Array{}}},
     {},
     kReporting,
     "<7>HTTPSPostBackend(updateBackendState): httpPost: eventWhitelist=(1, 2)"},
};

TEST(HTTPSPostStateTest, OneEntryDecides) {
    for (const StateCase& c : kStateCases) {
        HTTPSPostRig rig;
        const bool overridden = !c.changes.contains("override_dnu");
        Dictionary client = HTTPSPostRig::reportingClient();
        if (overridden) client.set("override_dnu", 1);
        client.merge(c.changes);
        for (const char* key : c.absent)
            client.erase(key);
        const auto backend = rig.makeBackend({"no dictionary", std::move(client)});
        const LogCapture log;
        backend->updateState();
        EXPECT_EQ(backend->state(), c.state) << c.what;
        if (c.line != nullptr) {
            EXPECT_THAT(log.lines(), Contains(c.line)) << c.what;
        }
    }
}

TEST(HTTPSPostStateTest, WhatTheDeviceDoesNotTellPassesOrFails) {
    const struct {
        const char* what;
        std::optional<std::string> country;
        std::optional<std::string> hardware;
        BackendState state;
    } cases[] = {
        {"no country passes a list", std::nullopt, "Model1,1", kReporting},
        {"no hardware is on every list", "CH", std::nullopt, kDisabled},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        rig.country = c.country;
        Dictionary client = HTTPSPostRig::reportingClient();
        client.merge({{"locale_whitelist", "DE"}, {"device_blacklist", "Other"}});
        if (c.country) client.set("locale_whitelist", "CH");
        const auto backend = rig.makeBackend({std::move(client)});
        backend->setHardwareType(c.hardware);
        backend->updateState();
        EXPECT_EQ(backend->state(), c.state) << c.what;
    }
}

TEST(HTTPSPostStateTest, TheFirstMatchingEnabledEntryIsTheOne) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    Dictionary other = HTTPSPostRig::reportingClient();
    other.set("client", "other");
    Dictionary later = HTTPSPostRig::reportingClient();
    later.set("enabledSince", "4");
    Dictionary without = HTTPSPostRig::reportingClient();
    without.erase("sampling_threshold");
    const auto backend = rig.makeBackend({other, later, without, HTTPSPostRig::reportingClient()});
    backend->updateState();
    EXPECT_EQ(backend->state(), kDisabled);
}

TEST(HTTPSPostStateTest, WaitsForUserInfo) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeBackend({HTTPSPostRig::reportingClient()});
    backend->setUserInfoDict(nullptr);
    backend->updateState();
    EXPECT_EQ(backend->state(), kWaiting);
    backend->setUserInfoDict(shared(userInfoOf("app", "network")));
    backend->updateState();
    EXPECT_EQ(backend->state(), kReporting);
    EXPECT_EQ(backend->samplingThreshold(), 0.5);
}

TEST(HTTPSPostStateTest, ExpediteOfTheFirstNamesakeSetsBatching) {
    const struct {
        Array expedite;  // of the entries in turn; a text: no number, an array: none
        bool batches;
    } cases[] = {
        {{1}, false}, {{0}, true}, {{Array{}, 1}, true}, {{"1", 1}, true}, {{true}, false}, {{0, 1}, true},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        Array clients;
        for (const PropertyList& expedite : c.expedite) {
            Dictionary client = HTTPSPostRig::reportingClient();
            if (!expedite.is<Array>()) client.set("expedite", expedite);
            clients.emplace_back(std::move(client));
        }
        const auto backend = rig.makeBackend(std::move(clients));
        backend->setBatchEvents(true);
        const LogCapture log;
        backend->updateState();
        backend->sendMessage(Dictionary{}, test::kNow, 5, 6, SendFlag{0});
        EXPECT_EQ(rig.http.requestCount(), c.batches ? 0u : 1u);
        if (c.expedite.front().is<int64_t>()) {
            EXPECT_TRUE(
                log.contains(std::string("<7>HTTPSPostBackend(updateBackendState): Store bag override  "
                                         "_batchEvent=") +
                             (c.batches ? "1" : "0")));
        }
    }
}

struct LinkCase {
    const char* what;
    const char* userDefault;
    const char* realtimeUserDefault;
    Array clients;
    bool requireUserInfo;
    const char* postURL;   // null: none
    const char* realtime;  // likewise
    std::string threshold;
};

Dictionary linkClient(const char* url, const char* realtime, int threshold) {
    Dictionary client = HTTPSPostRig::reportingClient();
    client.erase("post_url");
    client.erase("realtime_post_url");
    client.set("event_threshold", threshold);
    if (url != nullptr) client.set("post_url", url);
    if (realtime != nullptr) client.set("realtime_post_url", realtime);
    return client;
}

TEST(HTTPSPostStateTest, PostLinksComeFromDefaultsOrTheBag) {
    const LinkCase cases[] = {
        {"bag",
         nullptr,
         nullptr,
         {linkClient("http://a/", "http://r/", 3)},
         true,
         "http://a/",
         "http://r/",
         "3"},
        {"realtime defaults to the other",
         nullptr,
         nullptr,
         {linkClient("http://a/", nullptr, 3)},
         true,
         "http://a/",
         "http://a/",
         "3"},
        {"user defaults win",
         "http://d/",
         "http://dr/",
         {linkClient("http://a/", "http://r/", 3)},
         true,
         "http://d/",
         "http://dr/",
         "3"},
        {"user default for one",
         "http://d/",
         nullptr,
         {linkClient("http://a/", nullptr, 3)},
         true,
         "http://d/",
         "http://d/",
         "3"},
        {"without user info the first URL counts, whosever",
         nullptr,
         nullptr,
         {"x", linkClient(nullptr, nullptr, 1),
          Dictionary{{"client", "z"}, {"post_url", "http://z/"}, {"event_threshold", 5}},
          linkClient("http://a/", nullptr, 3)},
         false,
         "http://z/",
         "http://z/",
         "5"},
        {"without user info, no URL",
         nullptr,
         nullptr,
         {linkClient(nullptr, nullptr, 1)},
         false,
         nullptr,
         nullptr,
         "0"},
        {"without user info, user default",
         "http://d/",
         nullptr,
         {linkClient("http://a/", nullptr, 3)},
         false,
         "http://d/",
         "http://d/",
         "0"},
    };
    for (const LinkCase& c : cases) {
        HTTPSPostRig rig;
        rig.setConsent(true);
        if (c.userDefault != nullptr) rig.setDefault("httpsPostURL", c.userDefault);
        if (c.realtimeUserDefault != nullptr) rig.setDefault("httpsRealtimePostURL", c.realtimeUserDefault);
        const auto backend = rig.makeBackend(c.clients);
        backend->setRequireUserInfo(c.requireUserInfo);
        const LogCapture log;
        backend->updateState();
        EXPECT_EQ(backend->state(), kReporting) << c.what;
        EXPECT_TRUE(log.contains("<7>resetBackendStateWithClient: event_threshold set to " + c.threshold))
            << c.what;
        backend->sendMessage(Dictionary{}, test::kNow, 5, 6, SendFlag{0});
        backend->sendMessage(Dictionary{}, test::kNow, 5, 6, SendFlag{1});
        const auto requests = rig.http.requests();
        if (c.postURL == nullptr) {
            EXPECT_TRUE(requests.empty()) << c.what;
            continue;
        }
        ASSERT_EQ(requests.size(), 2u) << c.what;
        EXPECT_EQ(requests[0].url, c.postURL) << c.what;
        EXPECT_EQ(requests[1].url, c.realtime) << c.what;
    }
}

TEST(HTTPSPostStateTest, TheBagMayChangeNothingAfterALoggedFlush) {
    HTTPSPostRig rig;
    rig.setConsent(true);
    const auto backend = rig.makeReportingBackend();
    backend->setBatchEvents(true);
    backend->sendMessage(Dictionary{}, test::kNow, 5, 6, SendFlag{0});
    rig.country = "FR";
    ASSERT_TRUE(backend->flushMessagesWithCompletion({}));
    backend->updateState();
    EXPECT_EQ(backend->state(), kReporting);
}

TEST(HTTPSPostStateTest, DisplayURLIsTheProfiles) {
    HTTPSPostRig rig;
    const auto backend = HTTPSPostBackend::make(
        rig.services, "httpPost", profileOf({{"clients", Array{}}, {"display_url", "http://show/"}}), "f");
    EXPECT_EQ(backend->displayURL(), "http://show/");
}

}  // namespace
}  // namespace telvora
