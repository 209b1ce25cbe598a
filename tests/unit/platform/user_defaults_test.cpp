// SPDX-License-Identifier: Apache-2.0
#include "platform/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

#include "platform/known_settings.h"
#include "plist/property_list_format.h"
#include "tests/support/held_file_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

class UserDefaultsTest : public testing::Test {
  protected:
    // The defaults of a process that starts now.
    UserDefaults later() const { return {administrator_, state_}; }
    std::filesystem::path setAdministrators(const std::string& value) const {
        return directory_.write("etc/Preferences/d.plist",
                                "<plist><dict><key>key</key><string>" + value + "</string></dict></plist>");
    }

    test::TemporaryDirectory directory_;
    std::filesystem::path administrator_ = directory_.path() / "etc";
    std::filesystem::path state_ = directory_.path() / "var/state";
    UserDefaults defaults_{administrator_, state_};
};

TEST_F(UserDefaultsTest, AStoredValueOutlivesTheProcessAndIsPrivate) {
    EXPECT_TRUE(defaults_.set("com.example", "id", "one") && defaults_.set("com.example", "gone", true));
    EXPECT_TRUE(defaults_.remove("com.example", {"gone"}) &&
                defaults_.remove("com.example", {"never there"}));
    EXPECT_TRUE(defaults_.set("com.example", "control \x01", 1));
    EXPECT_FALSE(defaults_.set("com.example", "zero", std::string("\0", 1)));
    EXPECT_FALSE(defaults_.set("com.example", "not \xff UTF-8", 1));

    EXPECT_EQ(later().string("com.example", "id"), "one");
    EXPECT_EQ(later().integer("com.example", "control \x01"), 1);
    EXPECT_FALSE(later().boolean("com.example", "gone"));
    EXPECT_EQ(later().value("com.other", "id"), std::nullopt);

    using std::filesystem::perms;
    const std::filesystem::path directory = state_ / "Preferences";
    EXPECT_EQ(status(directory).permissions(), perms(0700));
    EXPECT_EQ(status(directory / "com.example.plist").permissions(), perms(0600));
    const std::filesystem::directory_iterator files(directory);
    EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "a temporary file was left";
}

TEST_F(UserDefaultsTest, TheAdministratorsValueWinsAndItsChangesCountAtOnce) {
    ASSERT_TRUE(defaults_.set("d", "key", "own"));
    EXPECT_EQ(defaults_.administratorValue("d", "key"), std::nullopt);
    std::filesystem::path file;
    for (const char* value : {"first", "2"}) {
        file = setAdministrators(value);
        EXPECT_EQ(defaults_.administratorValue("d", "key"), value);
        ASSERT_TRUE(defaults_.set("d", "key", "own again"));
        EXPECT_EQ(defaults_.string("d", "key"), value);
    }
    std::filesystem::remove(file);
    EXPECT_EQ(defaults_.string("d", "key"), "own again");
}

TEST_F(UserDefaultsTest, AMalformedFileCountsAsAbsentAndIsReportedOncePerChange) {
    const test::LogCapture log;
    std::string file;
    for (const char* content : {"rubbish", "<plist><array/></plist>"}) {
        file = directory_.write("etc/Preferences/d.plist", content);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(defaults_.value("d", "key"), std::nullopt);
    }
    const std::string line = "<4>UserDefaults(readDomainFile): " + file + " counts as absent: ";
    EXPECT_EQ(log.lines(), (std::vector{line + "not a property list", line + "not a dictionary"}));
}

TEST_F(UserDefaultsTest, WhatCannotBeWrittenIsKeptInMemoryAndWrittenWithTheNextChange) {
    directory_.write("var/state", "a file where the directory should be");
    EXPECT_FALSE(defaults_.set("d", "id", "stable"));
    EXPECT_EQ(defaults_.string("d", "id"), "stable");
    EXPECT_FALSE(defaults_.set("d", "gone", 1));
    EXPECT_FALSE(defaults_.remove("d", {"gone"}));
    EXPECT_EQ(defaults_.value("d", "gone"), std::nullopt);

    std::filesystem::remove(state_);
    EXPECT_TRUE(defaults_.set("d", "other", 1));
    EXPECT_EQ(later().string("d", "id"), "stable");
}

TEST_F(UserDefaultsTest, AReaderDoesNotWaitForAWriter) {
    ASSERT_TRUE(defaults_.set("d", "key", "old"));
    // A writer waits for that of another process.
    test::HeldFileLock turn(state_ / "Preferences");
    std::jthread writer([this] { EXPECT_TRUE(defaults_.set("d", "key", "new")); });
    turn.awaitWaiter();
    EXPECT_EQ(defaults_.string("d", "key"), "old");
    turn.release();
    writer.join();
    EXPECT_EQ(defaults_.string("d", "key"), "new");
}

TEST_F(UserDefaultsTest, AnUnfitSettingCountsAsItsDefaultWithOneLine) {
    const test::LogCapture log;
    const std::string domain(kTelvoraDefaultsDomain);
    const std::pair<PropertyList, int64_t> cases[] = {{7, 7}, {3.0, 3},  {"4", 4}, {0, 6},        {"high", 6},
                                                      {8, 6}, {"7x", 6}, {6.5, 6}, {Array{7}, 6}, {true, 6}};
    for (const auto& [value, expected] : cases) {
        ASSERT_TRUE(defaults_.set(domain, "logLevel", value));
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(integerSetting(defaults_, settings::kLogLevel), expected) << value.shapeDescription();
    }
    EXPECT_EQ(log.count("<4>Settings: logLevel of com.zandor.telvora counts as its default, 6: it must be an "
                        "integer from 3 to 7"),
              7u);
    EXPECT_EQ(log.lines().size(), 7u);
    ASSERT_TRUE(defaults_.remove(domain, {"logLevel"}));
    EXPECT_EQ(integerSetting(defaults_, settings::kLogLevel), 6);

    const std::tuple<const Setting&, PropertyList, bool> fits[] = {
        {settings::kStorebagURL, "http://b", true},
        {settings::kStorebagURL, 1, false},
        {settings::kConsent, true, true},
        {settings::kConsent, "yes", false},
        {settings::kUploadDirectories, Array{}, true},
        {settings::kUploadDirectories, Array{1}, false},
        {settings::kSharedHierarchies, Array{PropertyList(Array{5, "u"})}, true},
        {settings::kSharedHierarchies, Array{5}, false}};
    for (const auto& [setting, value, isFit] : fits)
        EXPECT_EQ(!whyUnfit(setting, value), isFit) << setting.key << value.shapeDescription();
}

TEST_F(UserDefaultsTest, ADomainIsNoPath) {
    for (const char* domain : {"", ".", "..", "../d", "a/b", ".hidden"}) {
        EXPECT_FALSE(defaults_.set(domain, "key", 1)) << domain;
        EXPECT_EQ(defaults_.value(domain, "key"), std::nullopt) << domain;
    }
}

TEST_F(UserDefaultsTest, AFileThatBreaksWhileItIsInUseCountsAsItWasBefore) {
    setAdministrators("https://bags.example");
    ASSERT_EQ(defaults_.string("d", "key"), "https://bags.example");
    const test::LogCapture log;
    const std::string file = directory_.write("etc/Preferences/d.plist", "half a fi");
    EXPECT_EQ(defaults_.string("d", "key"), "https://bags.example");
    EXPECT_EQ(log.lines(), std::vector{"<4>UserDefaults(readDomainFile): " + file +
                                       " counts as it was before: not a property list"});
    std::filesystem::remove(file);
    EXPECT_EQ(defaults_.value("d", "key"), std::nullopt);
}

TEST_F(UserDefaultsTest, AFileThatCannotBeOpenedNowIsLeftAlone) {
    ASSERT_TRUE(defaults_.set("d", "key", "kept"));
    UserDefaults second = later();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(second.value("d", "key"), std::nullopt);
    EXPECT_FALSE(second.set("d", "key", "another"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(second.set("d", "third", 1));
    for (UserDefaults* each : {&second, &defaults_})
        EXPECT_EQ(each->files("d").own, (Dictionary{{"key", "kept"}, {"third", 1}}));
}

TEST_F(UserDefaultsTest, AFileIsNeverLongerThanItsReaderTakes) {
    const std::string half(kMaxDocumentBytes / 2, 'x');
    EXPECT_TRUE(defaults_.set("d", "a", half));
    EXPECT_EQ(defaults_.set("d", "b", half).error(), "the file would be longer than 16 MiB");
    EXPECT_TRUE(defaults_.set("d", "c", 1));
    EXPECT_EQ(later().files("d").own.size(), 2u);
}

}  // namespace
}  // namespace telvora
