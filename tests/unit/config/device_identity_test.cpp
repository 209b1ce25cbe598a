// SPDX-License-Identifier: Apache-2.0
#include "config/device_identity.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "config/environment.h"
#include "telvora/keys.h"
#include "tests/support/environment_variable.h"
#include "tests/support/held_file_lock.h"
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
    const std::string fits(40, 'f');
    for (const auto& [deviceID, copied] : {std::pair{fits, fits}, {fits + "f", ""}, {"", ""}}) {
        DeviceIDBuffer buffer{};
        Device({{"UniqueDeviceID", deviceID}}).identity.copyUniqueDeviceID(buffer);
        EXPECT_EQ(buffer.data(), copied);
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

TEST(DeviceIdentity, AKeptIdentifierDoesNotWaitForOneThatIsStored) {
    const Device device;
    const auto kept = *device.identity.sharedIdentifierForDNU(true);
    HeldFileLock turn(device.directory.path() / "state/Preferences");
    std::jthread other(
        [&] { device.identity.getPersistentIdentifierForCustomClientIDSuffix("app:svc", "s"); });
    turn.awaitWaiter();
    EXPECT_EQ(*device.identity.sharedIdentifierForDNU(true), kept);
    turn.release();
}

TEST(DeviceIdentity, TheAdministratorMayNameCountryAndDevice) {
    const EnvironmentVariable locale("LC_ALL", "de_CH.UTF-8");
    const std::pair<Dictionary, const char*> cases[] = {
        {{}, "CH"}, {{{"CountryCode", "us"}}, "US"}, {{{"CountryCode", "Spain"}}, "CH"}};
    for (const auto& [properties, country] : cases)
        EXPECT_EQ(Device(properties).identity.countryCode(), country);

    Device device({}, {{"deviceName", ""}});
    const auto path = device.directory.path() / "etc";
    device.directory.write("etc/device.plist", serialized(Dictionary{{"DeviceName", "of the file"}}));
    EXPECT_EQ(DeviceProperties(path).answer("DeviceName"), "of the file");
    EXPECT_EQ(DeviceProperties(path, device.defaults).answer("DeviceName"), "");
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
    const std::string invalid = "<3>userDefaultsEnvironment: Invalid environment type ";
    // The setting, the build, the type, its section, and a line before that of the type, if any.
    const std::tuple<Dictionary, const char*, int, std::optional<std::string>, std::string> cases[] = {
        {{}, "Internal", 2, "zandor_internal", ""},
        {{}, "internal", 4, "release", ""},
        {{{"environmentType", 0}}, "", 0, {}, ""},
        {{{"environmentType", 1}}, "", 1, "development", ""},
        {{{"environmentType", "3"}}, "", 3, "seed", ""},
        {{{"environmentType", 5}}, "", 2, "zandor_internal", invalid + "5"},
        {{{"environmentType", -1}}, "", 2, "zandor_internal", invalid + "4294967295"},
        {{{"environmentType", Array{}}}, "", 0, {}, ""}};
    for (const auto& [settings, releaseType, expected, section, line] : cases) {
        Device device({{"ReleaseType", releaseType}}, settings);
        const Environment environment(device.defaults, device.identity);
        const LogCapture log;
        const EnvironmentType type = environment.userDefaultsEnvironment();
        EXPECT_EQ(environment.userDefaultsEnvironment(), type);  // without further lines
        EXPECT_EQ(static_cast<int>(type), expected);
        EXPECT_EQ(sectionNameForEnvironment(type), section);
        EXPECT_EQ(log.lines().back(),
                  "<6>userDefaultsEnvironment: Environment type " + std::to_string(expected));
        EXPECT_EQ(log.lines().size(), line.empty() ? 1u : 2u);
        EXPECT_TRUE(line.empty() || log.lines().front() == line);
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
