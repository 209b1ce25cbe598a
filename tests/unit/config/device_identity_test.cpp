// SPDX-License-Identifier: Apache-2.0
#include "config/device_identity.h"

#include <gtest/gtest.h>

#include <set>

#include "config/environment.h"
#include "telvora/keys.h"
#include "tests/support/log_capture.h"
#include "tests/support/signed_document.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {
namespace {

// A device that gives these answers, and its user defaults.
struct Device {
    explicit Device(const Dictionary& answers = {}, const Dictionary& administrators = {})
        : properties(answers) {
        directory.write("etc/Preferences/com.zandor.telvora.plist", serialized(administrators));
    }

    TemporaryDirectory directory;
    UserDefaults defaults{directory.path() / "etc", directory.path() / "state"};
    DeviceProperties properties;
    DeviceIdentity identity{properties, defaults};
};

TEST(DeviceIdentity, CopiesADeviceIDThatFitsAndNoOther) {
    for (const auto& [answers, expected] :
         {std::pair{Dictionary{{"UniqueDeviceID", std::string(40, 'f')}}, std::string(40, 'f')},
          {Dictionary{{"UniqueDeviceID", std::string(41, 'f')}}, ""},
          {Dictionary{}, ""}}) {
        DeviceIDBuffer buffer{};
        Device(answers).identity.copyUniqueDeviceID(buffer);
        EXPECT_EQ(buffer.data(), expected);
    }
}

TEST(DeviceIdentity, KeepsPersistentIdentifiersAcrossRestarts) {
    Device device;
    const auto identifiers = [&] {
        UserDefaults defaults(device.directory.path() / "etc", device.directory.path() / "state");
        const DeviceIdentity identity(device.properties, defaults);
        return std::vector{
            identity.getPersistentIdentifierForCustomClientIDSuffix("app:svc", "s"),
            identity.getPersistentIdentifierForCustomClientIDSuffix(std::nullopt, std::nullopt),
            identity.getPersistentIdentifierForDNU(true), identity.getPersistentIdentifierForDNU(false)};
    };
    const LogCapture log;
    const std::vector<std::string> first = identifiers();
    EXPECT_EQ(std::set(first.begin(), first.end()).size(), first.size());
    EXPECT_EQ(identifiers(), first);
    const char* const keys[] = {"uuid:app:svc:s", "uuid::", "uuidRespectDnu", "uuidOverrideDnu"};
    for (size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(device.defaults.string(kIdentifiersDomain, keys[i]), first[i]) << keys[i];
    EXPECT_TRUE(log.contains(
        "<6>getPersistentIdentifierForCustomClientIDSuffix: The value for uuid:app:svc:s: " + first[0]));
}

TEST(DeviceIdentity, ConsentIsNoUntilGiven) {
    Device device;
    EXPECT_FALSE(device.identity.diagnosticsConsent());
    ASSERT_TRUE(device.defaults.set("com.zandor.diagnosticsharing", "Enabled", true));
    EXPECT_TRUE(device.identity.diagnosticsConsent());
}

TEST(ClientIdentifier, JoinsLowerCasedNames) {
    EXPECT_EQ(clientIdentifierForUserInfo(
                  {{kTelvoraUserInfoClientName, "Com.App"}, {kTelvoraUserInfoServiceName, "SVC"}}),
              "com.app:svc");
    EXPECT_EQ(clientIdentifierForUserInfo({{kTelvoraUserInfoClientName, 5}}), ":");
}

TEST(Environment, TypeComesFromTheSettingElseFromTheBuild) {
    const struct {
        Dictionary settings;
        const char* releaseType;
        uint32_t expected;
        std::optional<std::string> section;
        std::string invalid = "";
    } cases[] = {
        {{}, "Internal", 2, "zandor_internal"},
        {{}, "internal", 4, "release"},
        {{{"environmentType", 0}}, "", 0, {}},
        {{{"environmentType", 1}}, "", 1, "development"},
        {{{"environmentType", "3"}}, "", 3, "seed"},
        {{{"environmentType", 5}}, "", 2, "zandor_internal", "5"},
        {{{"environmentType", -1}}, "", 2, "zandor_internal", "4294967295"},
        {{{"environmentType", Array{}}}, "", 0, {}},
    };
    for (const auto& each : cases) {
        Device device({{"ReleaseType", each.releaseType}}, each.settings);
        const Environment environment(device.defaults, device.identity);
        const LogCapture log;
        const EnvironmentType type = environment.userDefaultsEnvironment();
        EXPECT_EQ(environment.userDefaultsEnvironment(), type);  // without further lines
        std::vector<std::string> lines{"<6>userDefaultsEnvironment: Environment type " +
                                       std::to_string(each.expected)};
        if (!each.invalid.empty())
            lines.insert(lines.begin(),
                         "<3>userDefaultsEnvironment: Invalid environment type " + each.invalid);
        EXPECT_EQ(static_cast<uint32_t>(type), each.expected);
        EXPECT_EQ(log.lines(), lines);
        EXPECT_EQ(sectionNameForEnvironment(type), each.section);
    }
}

TEST(Environment, BaseURLIsReadOnce) {
    Device device({{"ReleaseType", "Internal"}}), external;
    const Environment before(device.defaults, device.identity);
    const std::string url = before.storebagBaseURL();
    EXPECT_EQ(url, TELVORA_INTERNAL_STOREBAG_URL);
    EXPECT_EQ(Environment(external.defaults, external.identity).storebagBaseURL(),
              TELVORA_PUBLIC_STOREBAG_URL);
    ASSERT_TRUE(device.defaults.set(kTelvoraDefaultsDomain, "telvora_storebag_url", "http://bags.test/b"));
    EXPECT_EQ(before.storebagBaseURL(), url);
    EXPECT_EQ(Environment(device.defaults, device.identity).storebagBaseURL(), "http://bags.test/b");
}

}  // namespace
}  // namespace telvora::test
