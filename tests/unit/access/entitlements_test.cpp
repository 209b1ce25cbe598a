// SPDX-License-Identifier: Apache-2.0
#include "access/entitlements.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "plist/property_list_format.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

constexpr char kName[] = "com.example.report";
const Dictionary kGranted{{kName, true}};

std::string xml(const PropertyList& value) {
    return serializePropertyList(value, PropertyListFormat::xml).value();
}

class EntitlementsTest : public testing::Test {
  protected:
    EntitlementsTest() {
        peer_.uid = 0;  // the one user and group whose name is the same everywhere
        peer_.gid = 1000;
        peer_.groups = {20, 0, 1001};
        peer_.label = "app_t";
        peer_.unit = "app.service";
    }
    void write(const std::string& name, const PropertyList& document) {
        directory_.write("entitlements.d/" + name, xml(document));
    }
    // The grant of one file with these conditions that is otherwise valid.
    bool grants(Dictionary file, const Peer& peer) {
        file.set("Entitlements", kGranted);
        write("only.plist", file);
        return store_.valueForEntitlement(peer, kName) == PropertyList(true);
    }

    Peer peer_;
    test::TemporaryDirectory directory_;
    EntitlementStore store_{directory_.path()};
};

TEST_F(EntitlementsTest, AllConditionsOfAFileMustHold) {
    const Dictionary all{{"User", "root"}, {"Group", 1000}, {"Unit", "app.service"}, {"Label", "app_t"}};
    // Group 1000 is the primary one, 1001 and root are supplementary.
    for (const Dictionary& holding : {Dictionary{}, all, Dictionary{{"User", 0}}, Dictionary{{"User", "0"}},
                                      Dictionary{{"Group", 1001}}, Dictionary{{"Group", "root"}}})
        EXPECT_TRUE(grants(holding, peer_)) << xml(holding);
    const std::pair<const char*, PropertyList> failing[] = {
        {"User", 1},     {"User", "01"},  {"User", "99999999999999999999"}, {"User", "no-such-user-here"},
        {"Group", 1002}, {"Unit", "app"}, {"Group", "no-such-group-here"},  {"Label", "app_t "}};
    for (const auto& [key, value] : failing) {
        Dictionary oneFails = all;
        oneFails.set(key, value);
        EXPECT_FALSE(grants({{key, value}}, peer_)) << key << xml(value);
        EXPECT_FALSE(grants(oneFails, peer_)) << key << xml(value);
    }
    // A peer of unknown unit or label has neither.
    for (const char* key : {"Unit", "Label"}) {
        EXPECT_FALSE(grants({{key, "x"}}, Peer())) << key;
        EXPECT_FALSE(grants({{key, ""}}, Peer())) << key;
    }
}

TEST_F(EntitlementsTest, AFileThatIsNotInOrderGrantsNothingAndIsLogged) {
    std::vector<std::string> documents{xml(true), xml(Array{kGranted}), xml(Dictionary{}),
                                       xml(Dictionary{{"Entitlements", true}}), "<plist><dict><key>Entitle"};
    const std::pair<const char*, PropertyList> faults[] = {
        {"Users", "root"}, {"User", true}, {"User", 0.0},       {"User", -1}, {"User", 4294967295},
        {"User", ""},      {"Unit", 1},    {"Group", Array{0}}, {"Label", ""}};
    for (const auto& [key, value] : faults)
        documents.push_back(xml(Dictionary{{"Entitlements", kGranted}, {key, value}}));
    for (const std::string& document : documents) {
        const test::LogCapture log;
        directory_.write("entitlements.d/bad.plist", document);
        EXPECT_FALSE(store_.valueForEntitlement(peer_, kName));
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_TRUE(log.lines()[0].starts_with("<4>EntitlementStore: ")) << log.lines()[0];
    }
    write("good.plist", Dictionary{{"Entitlements", kGranted}});
    EXPECT_TRUE(store_.valueForEntitlement(peer_, kName));
}

TEST_F(EntitlementsTest, LaterFilesOverrideEarlierOnesAndChangesCountAtOnce) {
    EXPECT_FALSE(store_.valueForEntitlement(peer_, kName));  // not even a directory
    const auto grant = [](PropertyList value) {
        return Dictionary{{"Entitlements", Dictionary{{kName, std::move(value)}, {"other", "kept"}}}};
    };
    write("10-all.plist", grant(false));
    write("9-last.plist", grant("last"));  // byte order, not that of numbers
    write("90-other-entitlement.plist", Dictionary{{"Entitlements", Dictionary{{"another", 1}}}});
    Dictionary forOthers = grant("others");
    forOthers.set("User", 12345);
    write("95-others.plist", forOthers);
    write("99-other.txt", grant("ignored"));
    EntitlementDecision decision;
    EXPECT_EQ(store_.valueForEntitlement(peer_, kName, &decision), PropertyList("last"));
    EXPECT_EQ(decision.file.filename(), "9-last.plist");
    ASSERT_EQ(decision.others.size(), 3u);
    EXPECT_EQ(decision.others[0].reason, "it does not name the entitlement");
    EXPECT_EQ(decision.others[1].reason, "its \"User\" is another one");
    EXPECT_EQ(decision.others[2].reason, "its name does not end in .plist");
    std::filesystem::remove(directory_.path() / "entitlements.d/9-last.plist");
    EXPECT_EQ(store_.valueForEntitlement(peer_, kName), PropertyList(false));
    EXPECT_EQ(store_.valueForEntitlement(peer_, "other"), PropertyList("kept"));
    EXPECT_FALSE(store_.valueForEntitlement(peer_, "absent"));
}

TEST_F(EntitlementsTest, AFileThatAnOrdinaryUserCanChangeGrantsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs files of other users";
    write("only.plist", Dictionary{{"Entitlements", kGranted}});
    const std::filesystem::path directory = directory_.path() / "entitlements.d";
    const struct {
        std::filesystem::path path;
        uid_t user;
        gid_t group;
        mode_t mode;
        const char* why;  // null: trusted
    } cases[] = {
        {directory / "only.plist", 0, 0, 0644, nullptr},
        {directory / "only.plist", 0, getegid(), 0664, nullptr},
        {directory / "only.plist", 0, 1000, 0644, nullptr},
        {directory / "only.plist", 1000, 0, 0644, "user 1000 owns it"},
        {directory / "only.plist", 0, 1000, 0664, "group 1000 may write to it"},
        {directory / "only.plist", 0, 0, 0646, "every user may write to it"},
        {directory, 1000, 0, 0755, "user 1000 owns it"},
        {directory, 0, 0, 01757, "every user may write to it"},
        {directory_.path(), 0, 1000, 0775, "group 1000 may write to it"},
        {directory_.path(), 0, 0, 01757, nullptr},
    };
    for (const auto& [path, user, group, mode, why] : cases) {
        const test::LogCapture log;
        ASSERT_TRUE(chown(path.c_str(), user, group) == 0 && chmod(path.c_str(), mode) == 0);
        EXPECT_EQ(store_.valueForEntitlement(peer_, kName).has_value(), why == nullptr) << path << mode;
        EXPECT_EQ(log.lines().size(), why == nullptr ? 0u : 1u);
        if (why != nullptr && !log.lines().empty()) {
            EXPECT_TRUE(log.lines()[0].starts_with("<4>EntitlementStore: ") && log.lines()[0].ends_with(why));
        }
        ASSERT_TRUE(chown(path.c_str(), 0, 0) == 0 && chmod(path.c_str(), 0755) == 0);
    }
}

}  // namespace
}  // namespace telvora
