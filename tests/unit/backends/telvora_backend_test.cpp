// SPDX-License-Identifier: Apache-2.0
#include "backends/telvora_backend.h"

#include <gtest/gtest.h>

#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {
namespace {

struct ProbeBackend : TelvoraBackend {
    explicit ProbeBackend(const BackendServices& services)
        : TelvoraBackend(services, "probe", nullptr, shared(BackendIdentity())) {}

    using TelvoraBackend::policy_;
    using TelvoraBackend::sendMessage;
    std::optional<std::string> sendMessage(const std::optional<Dictionary>&, TimeValue, uint16_t, uint16_t,
                                           EventID id, SendFlag) override {
        return std::to_string(static_cast<unsigned>(id));
    }
};

struct TelvoraBackendTest : testing::Test, BackendRig {
    ProbeBackend backend{services};
};

TEST(SelfVersionTest, KeepsThreeComponentsOfEightBits) {
    const std::pair<const char*, const char*> cases[] = {
        {"8", "8.0"},      {"8.1.2.3", "8.1.2"}, {"8.0.5", "8.0.5"}, {"300.1", "44.1"},
        {"8..2", "8.0.2"}, {"", "0.0"},          {"x.y", "0.0"},
    };
    for (const auto& [text, version] : cases)
        EXPECT_EQ(SelfVersion(text).text, version) << text;
}

TEST_F(TelvoraBackendTest, CountsItsMessagesUpToTheWrap) {
    EXPECT_EQ(backend.sendMessage({}, {}, 1, 1, SendFlag{}), "1");
    for (int i = 0; i < 65534; ++i)
        backend.sendMessage({}, {}, 1, 1, SendFlag{});
    EXPECT_EQ(backend.eventID(), 65535);
    EXPECT_EQ(backend.sendMessage({}, {}, 1, 1, SendFlag{}), "0");
}

TEST_F(TelvoraBackendTest, EmptyListsAreNotAlike) {
    EXPECT_TRUE(backend.isWhitelistedEvent(5));
    EXPECT_FALSE(backend.isBlacklistedEvent(5));
    const Array empty;
    backend.policy_.eventWhitelist = backend.policy_.eventBlacklist = &empty;
    EXPECT_FALSE(backend.isWhitelistedEvent(5));
    EXPECT_FALSE(backend.isBlacklistedEvent(5));
    const Array filled{Dictionary{}, "5", 7, 65536 + 9};
    backend.policy_.eventWhitelist = backend.policy_.eventBlacklist = &filled;
    for (const auto& [category, listed] : {std::pair{0, false}, {5, true}, {7, true}, {9, false}}) {
        EXPECT_EQ(backend.isWhitelistedEvent(static_cast<uint16_t>(category)), listed) << category;
        EXPECT_EQ(backend.isBlacklistedEvent(static_cast<uint16_t>(category)), listed) << category;
    }
}

}  // namespace
}  // namespace telvora::test
