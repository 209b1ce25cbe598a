// SPDX-License-Identifier: Apache-2.0
#include "config/device_identity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "config/environment.h"
#include "platform/property_list_format.h"
#include "telvora/keys.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

std::string xml(const Dictionary& dictionary) {
    return serializePropertyList(dictionary, PropertyListFormat::xml).value();
}

// User defaults in a directory of their own, reread from the files by each restart().
class DefaultsDirectory {
  public:
    explicit DefaultsDirectory(const Dictionary& administrators = {}) {
        directory_.write("etc/Preferences/com.zandor.telvora.plist", xml(administrators));
        restart();
    }
    UserDefaults& restart() {
        defaults_.emplace(directory_.path() / "etc", directory_.path() / "state");
        return *defaults_;
    }
    UserDefaults& defaults() { return *defaults_; }
    const test::TemporaryDirectory& directory() const { return directory_; }

  private:
    test::TemporaryDirectory directory_;
    std::optional<UserDefaults> defaults_;
};

TEST(DeviceIdentity, CopiesADeviceIDThatFitsAndNoOther) {
    const struct {
        std::optional<std::string> answer;
        std::string expected;
    } cases[] = {
        {"abc", "abc"},
        {std::string(40, 'f'), std::string(40, 'f')},
        {std::string(41, 'f'), ""},
        {std::nullopt, ""},
    };
    DefaultsDirectory files;
    for (const auto& each : cases) {
        Dictionary answers;
        if (each.answer) answers.set("UniqueDeviceID", *each.answer);
        const DeviceProperties properties(answers);
        const DeviceIdentity identity(properties, files.defaults());
        DeviceIDBuffer buffer{};
        identity.copyUniqueDeviceID(buffer);
        EXPECT_STREQ(buffer.data(), each.expected.c_str());
    }
}

TEST(DeviceIdentity, IsInternalOnlyWithTheReleaseTypeInternal) {
    DefaultsDirectory files;
    const auto isInternal = [&](Dictionary answers) {
        const DeviceProperties properties(std::move(answers));
        return DeviceIdentity(properties, files.defaults()).isInternal();
    };
    EXPECT_TRUE(isInternal({{"ReleaseType", "Internal"}}));
    EXPECT_FALSE(isInternal({{"ReleaseType", "internal"}}));
    EXPECT_FALSE(isInternal({}));
}

TEST(DeviceIdentity, KeepsPersistentIdentifiersAcrossRestarts) {
    DefaultsDirectory files;
    const DeviceProperties properties(Dictionary{});
    const auto identifiers = [&](UserDefaults& defaults) {
        const DeviceIdentity identity(properties, defaults);
        return std::vector{
            identity.getPersistentIdentifierForCustomClientIDSuffix("app:svc", "s"),
            identity.getPersistentIdentifierForCustomClientIDSuffix("app:svc", std::nullopt),
            identity.getPersistentIdentifierForCustomClientIDSuffix(std::nullopt, std::nullopt),
            identity.getPersistentIdentifierForDNU(true), identity.getPersistentIdentifierForDNU(false)};
    };
    const test::LogCapture log;
    const std::vector<std::string> first = identifiers(files.defaults());
    EXPECT_EQ(std::set(first.begin(), first.end()).size(), first.size());
    EXPECT_EQ(identifiers(files.restart()), first);

    UserDefaults& defaults = files.defaults();
    const char* const keys[] = {"uuid:app:svc:s", "uuid:app:svc:", "uuid::", "uuidRespectDnu",
                                "uuidOverrideDnu"};
    for (size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(defaults.string(kTelvoraDefaultsDomain, keys[i]), first[i]) << keys[i];
    EXPECT_TRUE(log.contains(
        "<6>getPersistentIdentifierForCustomClientIDSuffix: The value for uuid:app:svc:s: " + first[0]));
}

TEST(DeviceIdentity, StaysStableAndSaysSoOnceWhenNothingCanBeStored) {
    DefaultsDirectory files;
    files.directory().write("state", "a file where the directory should be");
    const DeviceProperties properties(Dictionary{});
    const DeviceIdentity identity(properties, files.defaults());
    const test::LogCapture log;
    const std::string first = identity.getPersistentIdentifierForDNU(true);
    EXPECT_EQ(first.size(), 36u);
    EXPECT_EQ(identity.getPersistentIdentifierForDNU(true), first);
    const std::vector<std::string> lines = log.lines();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const std::string& line) {
                          return line.starts_with(
                              "<3>persistentIdentifier: Could not store the value for uuidRespectDnu: ");
                      }),
        1);
}

TEST(DeviceIdentity, ConsentIsNoUntilGiven) {
    DefaultsDirectory files;
    const DeviceProperties properties(Dictionary{});
    const DeviceIdentity identity(properties, files.defaults());
    EXPECT_FALSE(identity.diagnosticsConsent());
    ASSERT_TRUE(files.defaults().set("com.zandor.diagnosticsharing", "Enabled", true));
    EXPECT_TRUE(identity.diagnosticsConsent());
}

TEST(ClientIdentifier, JoinsLowerCasedNames) {
    EXPECT_EQ(clientIdentifierForUserInfo(
                  {{kTelvoraUserInfoClientName, "Com.App"}, {kTelvoraUserInfoServiceName, "SVC"}}),
              "com.app:svc");
    EXPECT_EQ(clientIdentifierForUserInfo({{kTelvoraUserInfoServiceName, "Service"}}), ":service");
    EXPECT_EQ(clientIdentifierForUserInfo({{kTelvoraUserInfoClientName, 5}}), ":");
}

TEST(Environment, TypeComesFromTheSettingElseFromTheBuild) {
    const struct {
        Dictionary settings;
        const char* releaseType;
        uint32_t expected;
        const char* section;
        const char* invalid;
    } cases[] = {
        {{}, "Internal", 2, "zandor_internal", nullptr},
        {{}, "", 4, "release", nullptr},
        {{{"environmentType", 0}}, "", 0, nullptr, nullptr},
        {{{"environmentType", 1}}, "", 1, "development", nullptr},
        {{{"environmentType", "3"}}, "", 3, "seed", nullptr},
        {{{"environmentType", 7}}, "", 2, "zandor_internal", "7"},
        {{{"environmentType", 5}}, "", 2, "zandor_internal", "5"},
        {{{"environmentType", -1}}, "", 2, "zandor_internal", "4294967295"},
        {{{"environmentType", Array{}}}, "", 0, nullptr, nullptr},
    };
    for (const auto& each : cases) {
        DefaultsDirectory files(each.settings);
        const DeviceProperties properties(Dictionary{{"ReleaseType", each.releaseType}});
        const DeviceIdentity identity(properties, files.defaults());
        const Environment environment(files.defaults(), identity);
        const test::LogCapture log;
        const EnvironmentType type = environment.userDefaultsEnvironment();
        EXPECT_EQ(environment.userDefaultsEnvironment(), type);
        std::vector<std::string> expectedLog;
        if (each.invalid) {
            expectedLog.push_back(std::string("<3>userDefaultsEnvironment: Invalid environment type ") +
                                  each.invalid);
        }
        expectedLog.push_back("<6>userDefaultsEnvironment: Environment type " +
                              std::to_string(each.expected));
        EXPECT_EQ(static_cast<uint32_t>(type), each.expected);
        EXPECT_EQ(log.lines(), expectedLog);
        EXPECT_EQ(sectionNameForEnvironment(type),
                  each.section ? std::optional(std::string(each.section)) : std::nullopt);
    }
    EXPECT_EQ(sectionNameForEnvironment(static_cast<EnvironmentType>(5)), std::nullopt);
}

TEST(Environment, BaseURLIsReadOnce) {
    DefaultsDirectory files;
    const DeviceProperties properties(Dictionary{{"ReleaseType", "Internal"}});
    const DeviceIdentity internal(properties, files.defaults());
    const DeviceProperties none(Dictionary{});
    const DeviceIdentity external(none, files.defaults());

    const Environment internalEnvironment(files.defaults(), internal);
    const Environment externalEnvironment(files.defaults(), external);
    EXPECT_NE(internalEnvironment.storebagBaseURL(), externalEnvironment.storebagBaseURL());
    EXPECT_TRUE(externalEnvironment.storebagBaseURL().starts_with("https://"));
    ASSERT_TRUE(files.defaults().set(kTelvoraDefaultsDomain, "telvora_storebag_url", "http://bags.test/b"));
    EXPECT_NE(internalEnvironment.storebagBaseURL(), "http://bags.test/b");
    EXPECT_EQ(Environment(files.defaults(), internal).storebagBaseURL(), "http://bags.test/b");
}

}  // namespace
}  // namespace telvora
