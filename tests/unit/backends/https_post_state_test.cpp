// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/backends/https_post_rig.h"

namespace telvora {
namespace {

using test::HTTPSPostRig;
using test::kNow;
using test::LogCapture;
using test::profileOf;
using test::shared;
using test::userInfoOf;
using testing::Contains;

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
    for (const auto& bad : {profileOf({}), profileOf({{"clients", Dictionary{}}}),
                            std::make_shared<const PropertyList>("text")})
        EXPECT_EQ(HTTPSPostBackend::make(rig.services, "httpPost", bad, "family"), nullptr);
    EXPECT_EQ(log.count("<3>HTTPSPostBackend(initWithName): can't find the client list."), 3u);
}

struct StateCase {
    const char* what;
    Dictionary changes;  // to an entry that reports
    BackendState state;
    std::string line = "";    // one of the lines that tell why; "": not looked at
    const char* absent = "";  // a key taken out of the entry
    const char* level = "7";  // of the line
};

Dictionary countryThresholds(Array thresholds) {
    return {{"per_country_sampling_thresholds", std::move(thresholds)}};
}

// The rig's device: country CH, family "PhoneOne", hardware "Model1,1", version 3.1.9, factor 0.3.
const StateCase kStateCases[] = {
    {"reports", {}, kReporting, "httpPost: client found app:network, state=2, samplingFactor=0.300000"},
    {"other client", {{"client", "other"}}, kDisabled},
    {"one of the clients", {{"client", "x,APP"}}, kReporting},
    {"client is matched whole", {{"client", "ap"}}, kDisabled},
    {"service is matched in part", {{"service", "NET"}}, kReporting},
    {"other service", {{"service", "disk"}}, kDisabled},
    {"hostile names count as absent", {{"client", 7}, {"service", Array{}}}, kReporting},
    {"version is newer", {{"enabledSince", "3.1"}}, kReporting},
    {"version is equal", {{"enabledSince", "3.1.9"}}, kReporting},
    {"version is older", {{"enabledSince", "3.2"}}, kDisabled},
    {"version wraps", {{"enabledSince", "258.256"}}, kReporting},
    {"overridden by text", {{"override_dnu", "1"}}, kDisabled, "reporting disabled by DNU: 0."},
    {"no consent", {{"override_dnu", 2}}, kDisabled, "reporting disabled by DNU: 2."},
    {"no countries", {}, kDisabled, "(CH) isn't in country code list (null)", "locale_whitelist"},
    {"other countries", {{"locale_whitelist", "DE,FR"}}, kDisabled, "(CH) isn't in country code list DE,FR"},
    {"country in lower case", {{"locale_whitelist", "de,ch"}}, kReporting},
    {"other family", {{"device_whitelist", "X,Y"}}, kDisabled, "(PhoneOne) isn't in device whitelist X,Y"},
    {"family listed", {{"device_whitelist", "Tablet,phone"}}, kReporting},
    {"hardware listed",
     {{"device_blacklist", "x,model1"}},
     kDisabled,
     "(Model1,1) is in device blacklist x,model1"},
    {"no filters", {}, kDisabled, "filters are required.", "filters", "4"},
    {"hostile filters", {{"filters", "x"}}, kDisabled, "filters are required.", "", "4"},
    {"no threshold", {}, kDisabled, "", "sampling_threshold"},
    {"factor at the threshold", {{"sampling_threshold", 0.3}}, kReporting},
    {"sampled out", {{"sampling_threshold", 0.2}}, kSampledOut},
    {"below the override", {{"sampling_threshold", 0.2}, {"override_sampling", 0.4}}, kSampledOut},
    {"above the override", {{"sampling_threshold", 0.2}, {"override_sampling", 0.25}}, kDisabled},
    {"country's threshold",
     countryThresholds({7, Dictionary{{"country", "CH"}, {"threshold", 1}},
                        Dictionary{{"country", Array{"DE", "CH"}}, {"threshold", 0.1}},
                        Dictionary{{"country", Array{"CH"}}, {"threshold", 1}}}),
     kSampledOut, "sampling threshold for CH changed from 0.50 to 0.10"},
    {"country without threshold", countryThresholds({Dictionary{{"country", Array{"CH"}}}}), kDisabled},
    {"event lists",
     {{"event_whitelist", Array{1, 2}}, {"event_blacklist", Array{}}},
     kReporting,
     "httpPost: eventWhitelist=(1, 2)"},
};

TEST(HTTPSPostStateTest, OneEntryDecides) {
    for (const StateCase& c : kStateCases) {
        HTTPSPostRig rig;
        rig.setConsent(!c.changes.contains("override_dnu"));
        Dictionary client = HTTPSPostRig::reportingClient();
        client.merge(c.changes);
        client.erase(c.absent);
        const auto backend = rig.makeBackend({"no dictionary", std::move(client)});
        const LogCapture log;
        backend->updateState();
        EXPECT_EQ(backend->state(), c.state) << c.what;
        if (!c.line.empty()) {
            EXPECT_THAT(log.lines(), Contains("<" + std::string(c.level) +
                                              ">HTTPSPostBackend(updateBackendState): " + c.line))
                << c.what;
        }
    }
}

TEST(HTTPSPostStateTest, WhatTheDeviceDoesNotTellPassesOrFails) {
    HTTPSPostRig rig;
    Dictionary client = HTTPSPostRig::reportingClient();
    client.set("device_blacklist", "Other");
    const auto withoutHardware = rig.makeBackend({client});
    withoutHardware->setHardwareType(std::nullopt);
    withoutHardware->updateState();
    EXPECT_EQ(withoutHardware->state(), kDisabled);  // it is on every list

    client.set("locale_whitelist", "DE");
    rig.country.reset();
    const auto withoutCountry = rig.makeBackend({client});
    withoutCountry->updateState();
    EXPECT_EQ(withoutCountry->state(), kReporting);
}

TEST(HTTPSPostStateTest, TheFirstMatchingEnabledEntryIsTheOneOnceThereIsUserInfo) {
    HTTPSPostRig rig;
    const Dictionary good = HTTPSPostRig::reportingClient();
    Dictionary other = good;
    other.set("client", "other");
    Dictionary later = good;
    later.set("enabledSince", "4");
    Dictionary without = good;
    without.erase("sampling_threshold");
    for (const bool usable : {false, true}) {
        const auto backend = rig.makeBackend({other, later, usable ? good : without, good});
        backend->setUserInfoDict(nullptr);
        backend->updateState();
        EXPECT_EQ(backend->state(), kWaiting);
        backend->setUserInfoDict(shared(userInfoOf("app", "network")));
        backend->updateState();
        EXPECT_EQ(backend->state(), usable ? kReporting : kDisabled);
    }
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
        backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag{0});
        EXPECT_EQ(rig.http.requestCount(), c.batches ? 0u : 1u);
        if (c.expedite.front().is<int64_t>()) {
            EXPECT_TRUE(log.contains(
                std::string("<7>HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=") +
                (c.batches ? "1" : "0")));
        }
    }
}

Dictionary linkClient(const std::string& url, const std::string& realtime, int threshold) {
    Dictionary client = HTTPSPostRig::reportingClient();
    client.erase("post_url");
    client.erase("realtime_post_url");
    client.set("event_threshold", threshold);
    if (!url.empty()) client.set("post_url", url);
    if (!realtime.empty()) client.set("realtime_post_url", realtime);
    return client;
}

TEST(HTTPSPostStateTest, PostLinksComeFromDefaultsOrTheBag) {
    const std::string a = "http://a/";
    const std::string d = "http://d/";
    const std::string r = "http://r/";
    const std::string z = "http://z/";
    const Array both{linkClient(a, r, 3)};
    const Array one{linkClient(a, "", 3)};
    const Array none{linkClient("", "", 1)};
    const Array others{"x", none[0], Dictionary{{"client", "z"}, {"post_url", z}, {"event_threshold", 5}},
                       one[0]};
    const struct {
        const char* what;
        std::string userDefault;
        std::string realtimeUserDefault;
        Array clients;
        bool requireUserInfo;
        std::vector<std::string> urls;  // the plain one and the realtime one
        std::string threshold;
    } cases[] = {
        {"bag", "", "", both, true, {a, r}, "3"},
        {"realtime defaults to the other", "", "", one, true, {a, a}, "3"},
        {"user defaults win", d, "http://dr/", both, true, {d, "http://dr/"}, "3"},
        {"user default for one", d, "", one, true, {d, d}, "3"},
        {"without user info the first URL counts, whosever", "", "", others, false, {z, z}, "5"},
        {"without user info, no URL", "", "", none, false, {}, "0"},
        {"without user info, user default", d, "", one, false, {d, d}, "0"},
    };
    for (const auto& c : cases) {
        HTTPSPostRig rig;
        if (!c.userDefault.empty()) rig.setDefault("httpsPostURL", c.userDefault);
        if (!c.realtimeUserDefault.empty()) rig.setDefault("httpsRealtimePostURL", c.realtimeUserDefault);
        const auto backend = rig.makeBackend(c.clients);
        backend->setRequireUserInfo(c.requireUserInfo);
        const LogCapture log;
        backend->updateState();
        EXPECT_EQ(backend->state(), kReporting) << c.what;
        EXPECT_TRUE(log.contains("<7>resetBackendStateWithClient: event_threshold set to " + c.threshold))
            << c.what;
        for (const int flag : {0, 1})
            backend->sendMessage(Dictionary{}, kNow, 5, 6, SendFlag(flag));
        std::vector<std::string> urls;
        for (const HttpRequest& request : rig.http.requests())
            urls.push_back(request.url);
        EXPECT_EQ(urls, c.urls) << c.what;
    }
}

}  // namespace
}  // namespace telvora
