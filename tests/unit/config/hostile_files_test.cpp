// SPDX-License-Identifier: Apache-2.0
//
// Files that another program has put in the place of the daemon's, or has filled.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/client_framework.h"
#include "config/device_identity.h"
#include "tests/support/forked_child.h"
#include "tests/support/log_capture.h"
#include "tests/support/signed_document.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {
namespace {

TEST(HostileFiles, AFifoInPlaceOfAFileIsRefusedAtOnce) {
    const TemporaryDirectory directory;
    const std::filesystem::path& root = directory.path();
    std::filesystem::create_directories(root / "Preferences");
    for (const char* name : {"Info.plist", "publicKey.der", "device.plist", "Preferences/d.plist", "any"})
        ASSERT_EQ(mkfifo((root / name).c_str(), 0600), 0);
    const std::pair<const char*, std::function<bool()>> readers[] = {
        {"Info.plist", [&] { return ClientFramework(root).bundleVersion() == "8.0"; }},
        {"publicKey.der", [&] { return ClientFramework(root).publicKeyDers().empty(); }},
        {"device.plist", [&] { return !DeviceProperties(root, root).answer("DeviceName"); }},
        {"Preferences", [&] { return !UserDefaults(root, root / "none").value("d", "key"); }},
        {"any", [&] { return readPropertyListFile(root / "any").error() == "not a regular file"; }},
    };
    for (const auto& [name, reads] : readers) {
        EXPECT_EQ(inForkedChild([&file = name, &isRefused = reads](const ChildReport& report) {
                      alarm(5);  // ends a child that waits for a writer
                      report.expect(isRefused(), file);
                  }),
                  "")
            << name;
    }
}

TEST(PublicKeys, AreTheTrustedFilesOfBothDirectories) {
    const TemporaryDirectory directory;
    const LogCapture log;
    const std::string key = bagKey().publicKeyToDer();
    for (const char* file : {"framework/publicKey.der", "framework/publicKey-2027.der",
                             "framework/publicKey.pem", "framework/other.der", "etc/publicKey-a.der"})
        directory.write(file, key);
    const std::string open = directory.write("etc/publicKey-b.der", key);
    directory.write("etc/publicKey-c.der", "no key");
    ASSERT_EQ(chmod(open.c_str(), 0666), 0);
    std::filesystem::create_symlink(directory.write("anybody/key", key),
                                    directory.path() / "etc/publicKey-d.der");
    ASSERT_EQ(chmod((directory.path() / "anybody").c_str(), 0777), 0);
    const ClientFramework framework(directory.path() / "framework", directory.path() / "etc");
    std::string found;
    for (const PublicKeyFile& each : framework.publicKeyFiles())
        found += each.file.filename().string() + (each.problem ? "! " : " ");
    EXPECT_EQ(
        found,
        "publicKey-2027.der publicKey.der publicKey-a.der publicKey-b.der! publicKey-c.der! publicKey-d.der! ");
    EXPECT_EQ(framework.publicKeyDers(), (std::vector<std::string>{key, key, key, "no key"}));
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines().front(),
              "<4>ClientFramework: " + open + " verifies no bag: every user may write to it");

    for (int i = 0; i < 20; ++i)
        directory.write("framework/publicKey-" + std::to_string(i) + ".der", key);
    EXPECT_EQ(readPublicKeys(directory.path() / "framework").size(), kMaxPublicKeys);
    ASSERT_EQ(chmod((directory.path() / "framework").c_str(), 0777), 0);
    EXPECT_TRUE(readPublicKeys(directory.path() / "framework").front().isUntrusted);
}

class IdentifiersTest : public testing::Test {
  protected:
    std::string identifierOf(const std::string& client, uid_t user = 1000) {
        return identity_.getPersistentIdentifierForCustomClientIDSuffix(client, std::nullopt, user);
    }

    TemporaryDirectory directory_;
    std::filesystem::path own_ = directory_.path() / "state/Preferences";
    UserDefaults defaults_{directory_.path() / "etc", directory_.path() / "state"};
    DeviceProperties properties_{Dictionary{}};
    DeviceIdentity identity_{properties_, defaults_};
};

TEST_F(IdentifiersTest, InventedNamesLeaveSettingsAndOthersIdentifiersAlone) {
    ASSERT_TRUE(defaults_.set(kTelvoraDefaultsDomain, "telvora_storebag_url", "https://bags.example"));
    const std::string others = identifierOf("theirs", 1001);
    for (int i = 0; i < 20; ++i)
        identifierOf(std::to_string(i) + std::string(900'000, 'n'));
    UserDefaults later(directory_.path() / "etc", directory_.path() / "state");
    EXPECT_EQ(later.string(kTelvoraDefaultsDomain, "telvora_storebag_url"), "https://bags.example");
    EXPECT_EQ(DeviceIdentity(properties_, later)
                  .getPersistentIdentifierForCustomClientIDSuffix("theirs", std::nullopt, 1001),
              others);
    EXPECT_TRUE(identifierOf("mine") == identifierOf("mine")) << "the user still has identifiers";
}

TEST_F(IdentifiersTest, AUserKeepsABoundedNumber) {
    const std::string first = identifierOf("0");
    for (size_t i = 1; i < kMaxIdentifiersOfUser; ++i)
        identifierOf(std::to_string(i));
    const LogCapture log;
    EXPECT_NE(identifierOf("one more"), identifierOf("one more"));
    EXPECT_EQ(
        log.count("<3>persistentIdentifier: Could not store the value for uuid:one more:: 256 identifiers "
                  "of user 1000 are kept"),
        2u);
    EXPECT_EQ(identifierOf("0"), first);
    EXPECT_EQ(identifierOf("theirs", 1001), identifierOf("theirs", 1001));
    EXPECT_EQ(identity_.getPersistentIdentifierForDNU(true), identity_.getPersistentIdentifierForDNU(true));
}

TEST_F(IdentifiersTest, AllUsersTogetherKeepABoundedNumber) {
    Dictionary earlier;
    for (size_t i = 0; i <= kMaxIdentifiers; ++i)
        earlier.set("uuid:" + std::to_string(i) + ":", "A");
    ASSERT_TRUE(defaults_.set(kTelvoraDefaultsDomain, earlier));
    EXPECT_NE(identifierOf("one more"), identifierOf("one more"));
    EXPECT_EQ(defaults_.files(kIdentifiersDomain).own.size(), kMaxIdentifiers);
}

TEST_F(IdentifiersTest, ThoseOfAnEarlierVersionAreCarriedOver) {
    const Dictionary earlier{{"uuid:app:svc", "A"}, {"uuidRespectDnu", "B"}, {"logLevel", 7}};
    ASSERT_TRUE(defaults_.set(kTelvoraDefaultsDomain, earlier));
    EXPECT_EQ(identity_.getPersistentIdentifierForCustomClientIDSuffix("app", "svc", 1000), "A");
    EXPECT_EQ(identity_.getPersistentIdentifierForDNU(true), "B");
    EXPECT_EQ(defaults_.files(kTelvoraDefaultsDomain).own, (Dictionary{{"logLevel", 7}}));
    EXPECT_EQ(defaults_.files(kIdentifiersDomain).own.size(), 2u);
}

TEST_F(IdentifiersTest, AFileThatCannotBeReadIsMovedAsideAndNeverOverwritten) {
    const std::string name = std::string(kIdentifiersDomain) + ".plist";
    for (const std::string aside : {".unreadable", ".unreadable.1"}) {
        directory_.write("state/Preferences/" + name, "damaged" + aside);
        const LogCapture log;
        identifierOf("of " + aside);
        identifierOf("another of " + aside);
        EXPECT_EQ(readFile(own_ / (name + aside)), "damaged" + aside);
        EXPECT_EQ(log.count("<4>UserDefaults(moveAside): " + (own_ / name).string() +
                            " can't be read and is now " + (own_ / (name + aside)).string()),
                  1u);
    }
}

}  // namespace
}  // namespace telvora::test
