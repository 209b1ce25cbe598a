// SPDX-License-Identifier: Apache-2.0
//
// BackendRig: the services of a backend, with a fake HTTP client, a virtual clock and network, and fixed
// values. Also makes identities.
#pragma once

#include <gtest/gtest.h>

#include <cmath>

#include "async/virtual_network.h"
#include "backends/telvora_backend.h"
#include "telvora/keys.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {

constexpr TimeValue kNow{1447660800, 250000};

struct BackendRig {
    explicit BackendRig(Dictionary deviceProperties = {}) : properties(std::move(deviceProperties)) {}

    void setDefault(std::string_view key, PropertyList value) {
        ASSERT_TRUE(defaults.set(kTelvoraDefaultsDomain, key, std::move(value)));
    }
    void setConsent(bool consent) {
        ASSERT_TRUE(defaults.set("com.zandor.diagnosticsharing", "Enabled", consent));
    }

    TemporaryDirectory directory;
    UserDefaults defaults{directory.path() / "config", directory.path() / "state"};
    DeviceProperties properties;
    DeviceIdentity identity{properties, defaults};
    Environment environment{defaults, identity};
    FakeHttpClient http;
    VirtualNetwork network;
    double now = 1447660800.25;  // seconds since 1970, as kNow
    std::optional<std::string> country = "CH";
    double random = 0.3;  // the sampling draw of every backend
    BackendServices services{.http = http,
                             .identity = identity,
                             .environment = environment,
                             .defaults = defaults,
                             .clock =
                                 [this] {
                                     return TimeValue{static_cast<int32_t>(now),
                                                      static_cast<int32_t>(std::fmod(now, 1.0) * 1000000)};
                                 },
                             .countryCode = [this] { return country; },
                             .timeZoneOffsetSeconds = [] { return 3600L; },
                             .random = [this] { return random; },
                             .makeNetworkQueue = [this] { return network.makeQueue(); }};
};

template <typename T>
std::shared_ptr<const T> shared(T value) {
    return std::make_shared<const T>(std::move(value));
}

using OptionalText = std::optional<std::string>;

// An identity of this client type.
inline BackendIdentity identityOf(int32_t clientType, const OptionalText& hardwareType = "Model1,1",
                                  const OptionalText& build = {}) {
    return {.sessionID = 42,
            .compType = clientType,
            .clientVersion = 11,
            .device = shared(DeviceTexts{
                .name = "PhoneOne", .osVersion = "12.1", .build = build, .hardwareType = hardwareType}),
            .requireUserInfo = true,
            .selfVersion = SelfVersion("3.1.9"),
            .startTimestamp = kNow};
}

inline BackendProfile profileOf(Dictionary profile) {
    return std::make_shared<const PropertyList>(std::move(profile));
}

inline Dictionary userInfoOf(const std::string& client, const std::string& service) {
    return {{kTelvoraUserInfoClientName, client}, {kTelvoraUserInfoServiceName, service}};
}

}  // namespace telvora::test
