// SPDX-License-Identifier: Apache-2.0
#include "backends/telvora_backend.h"

#include <gtest/gtest.h>

#include "backends/backend_factory.h"
#include "platform/digest.h"
#include "tests/unit/backends/backend_rig.h"

namespace telvora {
namespace {

using test::BackendRig;
using test::LogCapture;
using test::profileOf;

class ProbeBackend : public TelvoraBackend {
  public:
    explicit ProbeBackend(const BackendServices& services)
        : TelvoraBackend(services, "probe", nullptr, std::nullopt) {}

    using TelvoraBackend::sendMessage;
    std::optional<std::string> sendMessage(const std::optional<Dictionary>&, TimeValue, uint16_t, uint16_t,
                                           EventID id, SendFlag) override {
        return std::to_string(static_cast<unsigned>(id));
    }
    void setLists(std::optional<Array> white, std::optional<Array> black) {
        eventWhitelist_ = std::move(white);
        eventBlacklist_ = std::move(black);
    }
    const std::string& selfVersion() const { return selfVersion_; }
};

TEST(TelvoraBackendTest, ReadsItsVersion) {
    BackendRig rig;
    ProbeBackend backend(rig.services);
    const std::pair<const char*, const char*> cases[] = {
        {"8", "8.0"},      {"8.1.2.3", "8.1.2"}, {"8.0.5", "8.0.5"}, {"300.1", "44.1"},
        {"8..2", "8.0.2"}, {"", "0.0"},          {"x.y", "0.0"},
    };
    for (const auto& [text, version] : cases) {
        backend.setSelfVersion(text);
        EXPECT_EQ(backend.selfVersion(), version) << text;
    }
}

TEST(TelvoraBackendTest, CountsItsMessagesUpToTheWrap) {
    BackendRig rig;
    ProbeBackend backend(rig.services);
    EXPECT_EQ(backend.sendMessage({}, {}, 1, 1, SendFlag{}), "1");
    for (int i = 0; i < 65534; ++i)
        backend.sendMessage({}, {}, 1, 1, SendFlag{});
    EXPECT_EQ(backend.eventID(), 65535);
    EXPECT_EQ(backend.sendMessage({}, {}, 1, 1, SendFlag{}), "0");
}

TEST(TelvoraBackendTest, EmptyListsAreNotAlike) {
    BackendRig rig;
    ProbeBackend backend(rig.services);
    EXPECT_TRUE(backend.isWhitelistedEvent(5));
    EXPECT_FALSE(backend.isBlacklistedEvent(5));

    backend.setLists(Array{}, Array{});
    EXPECT_FALSE(backend.isWhitelistedEvent(5));
    EXPECT_FALSE(backend.isBlacklistedEvent(5));

    const Array mixed{Dictionary{}, "5", 7, 65536 + 9};
    backend.setLists(mixed, mixed);
    for (const auto& [category, listed] :
         std::map<uint16_t, bool>{{0, false}, {5, true}, {7, true}, {9, false}}) {
        EXPECT_EQ(backend.isWhitelistedEvent(category), listed) << category;
        EXPECT_EQ(backend.isBlacklistedEvent(category), listed) << category;
    }
}

TEST(TelvoraBackendTest, DigestCoversAsManyBytesAsThereAreUtf16Units) {
    const std::pair<std::string, std::string> cases[] = {
        {"abc", "abc"},         {"", ""}, {"äbc", "äb"},  // 3 units of 4 bytes
        {"😀x", "\xf0\x9f\x98"},                           // a surrogate pair counts two
        {"€€", "\xe2\x82"},
    };
    EXPECT_EQ(TelvoraBackend::convertIntoSHA256("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    for (const auto& [text, hashed] : cases)
        EXPECT_EQ(TelvoraBackend::convertIntoSHA256(text), sha256Hex(hashed)) << text;
}

TEST(TelvoraBackendTest, SenderCodesEndWithTheTable) {
    const std::pair<int, const char*> cases[] = {{0, "SM"},        {7, "VC"}, {12, "KESTOVA"},
                                                 {18, "LINDQVAR"}, {19, ""},  {-1, ""}};
    for (const auto& [type, code] : cases)
        EXPECT_EQ(senderCodeForClientType(type), code);
}

TEST(BackendFactoryTest, MakesWhatTheNameSays) {
    const BackendProfile profile = profileOf({{"clients", Array{}}});
    BackendRig rig;
    const BackendFactory factory(rig.services);
    for (const char* name : {kTelvoraBackendHTTPPost, kTelvoraBackendHTTPPost2}) {
        const auto backend = factory.newBackendWithName(name, profile, "family", 7);
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->name(), name);
        EXPECT_EQ(backend->samplingFactor(), 0.3);
        EXPECT_EQ(backend->state(), BackendState::waitingForUserInfo);
    }
    const LogCapture log;
    for (const char* name : {"refresh_cycle", "httppost", ""}) {
        EXPECT_EQ(factory.newBackendWithName(name, profile, "family", 7), nullptr);
        EXPECT_TRUE(log.contains(std::string("<3>TelvoraBackend(newBackendWithName): ") + name));
    }

    BackendRig halcyra({{"ProductType", "Halcyra"}});  // has no metrics adaptor
    const BackendFactory without(halcyra.services);
    EXPECT_EQ(without.newBackendWithName(kTelvoraBackendVodex, profileOf({}), "family", 7), nullptr);
    EXPECT_EQ(log.lines().back(), "<3>TelvoraBackend(newBackendWithName): vodex");
}

}  // namespace
}  // namespace telvora
