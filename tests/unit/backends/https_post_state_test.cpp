// SPDX-License-Identifier: Apache-2.0
//
// States of a backend by its bag. tests/unit/bag/explain_entry.txt has those of a single entry.
#include "tests/unit/backends/https_post_rig.h"

namespace telvora::test {
namespace {

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
        rig.makeBackend({reportingClient({{"device_blacklist", "Other"}})},
                        identityWith([](auto& identity) { identity.hardwareType.reset(); }));
    withoutHardware->updateState();
    EXPECT_EQ(withoutHardware->state(), kDisabled);
}

TEST(HTTPSPostStateTest, TheFirstMatchingEnabledEntryIsTheOneOnceThereIsUserInfo) {
    HTTPSPostRig rig;
    for (const PropertyList& threshold : {PropertyList(0.5), PropertyList("none")}) {
        const auto backend =
            rig.makeBackend({reportingClient({{"client", "other"}}), reportingClient({{"enabledSince", "4"}}),
                             reportingClient({{"sampling_threshold", threshold}}), reportingClient()});
        backend->setUserInfoDict(nullptr);
        backend->updateState();
        EXPECT_EQ(backend->state(), kWaiting);
        backend->setUserInfoDict(shared(userInfoOf("app", "network")));
        backend->updateState();
        EXPECT_EQ(backend->state(), threshold == PropertyList(0.5) ? kReporting : kDisabled);
    }
}

TEST(HTTPSPostStateTest, ExpediteOfTheFirstNamesakeSetsBatching) {
    const std::string line = "<7>HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=";
    // The values of the entries in turn (of an array: absent), and the end of the line, if there is one.
    const std::tuple<Array, bool, std::string> cases[] = {{{1}, false, "0"},        {{0}, true, "1"},
                                                          {{Array{}, 1}, true, ""}, {{"1", 1}, true, ""},
                                                          {{true}, false, "0"},     {{0, 1}, true, "1"}};
    for (const auto& [values, batches, logged] : cases) {
        HTTPSPostRig rig;
        Array clients;
        for (const PropertyList& expedite : values)
            clients.emplace_back(reportingClient({{"expedite", expedite}}));
        const auto backend = rig.makeBackend(std::move(clients), batching());
        const LogCapture log;
        backend->updateState();
        EXPECT_EQ(log.lines().front() == line + logged, !logged.empty()) << log.lines().front();
        EXPECT_EQ(log.lines().front().starts_with(line), !logged.empty());
        backend->sendMessage(Dictionary{}, kNow, 5, 6, kPlain);
        EXPECT_EQ(rig.http.requestCount(), batches ? 0u : 1u);
    }
}

TEST(HTTPSPostStateTest, PostLinksComeFromDefaultsOrTheBag) {
    constexpr int kNone = 0;  // no text, and so no link
    const Array both{reportingClient({{"event_threshold", 3}})};
    const Array one{reportingClient({{"event_threshold", 3}, {"realtime_post_url", kNone}})};
    const Array none{
        reportingClient({{"event_threshold", 1}, {"post_url", kNone}, {"realtime_post_url", kNone}})};
    const Array others{
        "x", none[0], Dictionary{{"client", "z"}, {"post_url", "http://z/"}, {"event_threshold", 5}}, one[0]};
    // The plain link and the realtime link in the defaults and in the posts.
    const std::tuple<Urls, Array, bool, Urls, std::string> cases[] = {
        {{"", ""}, both, true, {kPost, kRealtimePost}, "3"},
        {{"", ""}, one, true, {kPost, kPost}, "3"},
        {{"http://d/", "http://e/"}, both, true, {"http://d/", "http://e/"}, "3"},
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

}  // namespace
}  // namespace telvora::test
