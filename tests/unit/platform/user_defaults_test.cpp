// SPDX-License-Identifier: Apache-2.0
#include "platform/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "platform/property_list_format.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using test::TemporaryDirectory;

std::string plist(const Dictionary& content) {
    return serializePropertyList(content, PropertyListFormat::xml).value();
}

mode_t modeOf(const std::filesystem::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class UserDefaultsTest : public testing::Test {
  protected:
    TemporaryDirectory directory_;
    std::filesystem::path administrator_ = directory_.path() / "etc";
    std::filesystem::path state_ = directory_.path() / "var/state";
    UserDefaults defaults_{administrator_, state_};
};

TEST_F(UserDefaultsTest, AStoredValueOutlivesTheProcessAndIsPrivate) {
    ASSERT_TRUE(defaults_.set("com.example", "id", "one"));
    ASSERT_TRUE(defaults_.set("com.example", "count", 3));
    ASSERT_TRUE(defaults_.set("com.example", "gone", true));
    ASSERT_TRUE(defaults_.remove("com.example", "gone"));
    ASSERT_TRUE(defaults_.remove("com.example", "never there"));

    UserDefaults later(administrator_, state_);
    EXPECT_EQ(later.string("com.example", "id"), "one");
    EXPECT_EQ(later.integer("com.example", "count"), 3);
    EXPECT_FALSE(later.boolean("com.example", "gone"));
    EXPECT_EQ(later.string("com.example", "count"), std::nullopt);
    EXPECT_EQ(later.value("com.other", "id"), std::nullopt);

    EXPECT_EQ(modeOf(state_ / "Preferences"), 0700u);
    EXPECT_EQ(modeOf(state_ / "Preferences/com.example.plist"), 0600u);
    const std::filesystem::directory_iterator files(state_ / "Preferences");
    EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "a temporary file was left";
}

TEST_F(UserDefaultsTest, TheAdministratorsValueWinsAndItsChangesCountAtOnce) {
    ASSERT_TRUE(defaults_.set("d", "key", "own"));
    EXPECT_EQ(defaults_.string("d", "key"), "own");
    const auto file = directory_.write("etc/Preferences/d.plist", plist({{"key", "first"}}));
    EXPECT_EQ(defaults_.string("d", "key"), "first");
    ASSERT_TRUE(defaults_.set("d", "key", "own again"));
    EXPECT_EQ(defaults_.string("d", "key"), "first");
    directory_.write("etc/Preferences/d.plist", plist({{"key", "2"}}));
    EXPECT_EQ(defaults_.string("d", "key"), "2");
    std::filesystem::remove(file);
    EXPECT_EQ(defaults_.string("d", "key"), "own again");
}

TEST_F(UserDefaultsTest, AMalformedFileCountsAsAbsentAndIsReportedOncePerChange) {
    const test::LogCapture log;
    for (const char* content : {"rubbish", "<plist><array/></plist>"}) {
        directory_.write("etc/Preferences/d.plist", content);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(defaults_.value("d", "key"), std::nullopt);
    }
    const std::string file = administrator_ / "Preferences/d.plist";
    const std::string line = "<4>UserDefaults(readDomainFile): " + file + " counts as absent: ";
    EXPECT_EQ(log.lines(), (std::vector{line + "not a property list", line + "not a dictionary"}));
}

TEST_F(UserDefaultsTest, WhatCannotBeWrittenIsKeptInMemoryAndWrittenWithTheNextChange) {
    directory_.write("var/state", "a file where the directory should be");
    EXPECT_FALSE(defaults_.set("d", "id", "stable"));
    EXPECT_EQ(defaults_.string("d", "id"), "stable");
    EXPECT_FALSE(defaults_.set("d", "gone", 1));
    EXPECT_FALSE(defaults_.remove("d", "gone"));
    EXPECT_EQ(defaults_.value("d", "gone"), std::nullopt);

    std::filesystem::remove(state_);
    EXPECT_TRUE(defaults_.set("d", "other", 1));
    EXPECT_EQ(UserDefaults(administrator_, state_).string("d", "id"), "stable");
}

TEST_F(UserDefaultsTest, WhatNoFileCanHoldIsRefusedAndStandsInNobodysWay) {
    EXPECT_FALSE(defaults_.set("d", "zero", std::string("\0", 1)));
    EXPECT_FALSE(defaults_.set("d", "not \xff UTF-8", 1));
    EXPECT_TRUE(defaults_.set("d", "control \x01", 1));
    EXPECT_EQ(UserDefaults(administrator_, state_).integer("d", "control \x01"), 1);
}

TEST_F(UserDefaultsTest, ADomainIsNoPath) {
    for (const char* domain : {"", ".", "..", "../d", "a/b", ".hidden"}) {
        EXPECT_FALSE(defaults_.set(domain, "key", 1)) << domain;
        EXPECT_EQ(defaults_.value(domain, "key"), std::nullopt) << domain;
    }
}

TEST_F(UserDefaultsTest, ThreadsShareIt) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            EXPECT_TRUE(defaults_.set("d", std::to_string(i), i));
            EXPECT_EQ(defaults_.integer("d", std::to_string(i)), i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(UserDefaults(administrator_, state_).integer("d", std::to_string(i)), i);
}

}  // namespace
}  // namespace telvora
