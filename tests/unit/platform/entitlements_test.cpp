// SPDX-License-Identifier: Apache-2.0
#include "platform/entitlements.h"

#include <gtest/gtest.h>

#include "platform/property_list_format.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

constexpr char kName[] = "com.example.report";

Peer examplePeer() {
    Peer peer;
    peer.pid = 4711;
    peer.uid = 0;  // the one user and group whose name is the same everywhere
    peer.gid = 1000;
    peer.groups = {20, 0, 1001};
    peer.label = "app_t";
    peer.unit = "app.service";
    return peer;
}

class EntitlementsTest : public testing::Test {
  protected:
    void write(const std::string& name, const PropertyList& document) {
        directory_.write("entitlements.d/" + name,
                         serializePropertyList(document, PropertyListFormat::xml).value());
    }
    // What one file with these conditions, and otherwise in order, grants.
    bool grants(Dictionary file, const Peer& peer = examplePeer()) {
        file.set("Entitlements", Dictionary{{kName, true}});
        write("only.plist", file);
        return store_.valueForEntitlement(peer, kName) == PropertyList(true);
    }

    test::TemporaryDirectory directory_;
    EntitlementStore store_{directory_.path()};
};

TEST_F(EntitlementsTest, AllConditionsOfAFileMustHold) {
    const Dictionary all{{"User", "root"}, {"Group", 1000}, {"Unit", "app.service"}, {"Label", "app_t"}};
    const struct {
        Dictionary conditions;
        bool granted;
    } cases[] = {
        {{}, true},
        {all, true},
        {{{"User", "root"}}, true},
        {{{"User", 0}}, true},
        {{{"User", "0"}}, true},
        {{{"User", 1}}, false},
        {{{"User", "01"}}, false},
        {{{"User", "no-such-user-here"}}, false},
        {{{"User", "99999999999999999999"}}, false},
        {{{"Group", 1000}}, true},    // primary
        {{{"Group", 1001}}, true},    // supplementary
        {{{"Group", "root"}}, true},  // likewise
        {{{"Group", 1002}}, false},
        {{{"Group", "no-such-group-here"}}, false},
        {{{"Unit", "app.service"}}, true},
        {{{"Unit", "app"}}, false},
        {{{"Label", "app_t"}}, true},
        {{{"Label", "app_t "}}, false},
    };
    for (const auto& [conditions, granted] : cases) {
        EXPECT_EQ(grants(conditions), granted)
            << serializePropertyList(conditions, PropertyListFormat::xml).value();
    }
    for (const auto& [key, value] : all) {
        Dictionary oneFails = all;
        oneFails.set(key, value.is<int64_t>() ? PropertyList(7) : PropertyList("other"));
        EXPECT_FALSE(grants(oneFails)) << key;
    }
}

TEST_F(EntitlementsTest, APeerOfUnknownUnitOrLabelHasNeither) {
    const Peer stranger;
    for (const char* key : {"Unit", "Label"}) {
        EXPECT_FALSE(grants({{key, "x"}}, stranger)) << key;
        EXPECT_FALSE(grants({{key, ""}}, stranger)) << key;
    }
}

TEST_F(EntitlementsTest, AFileThatIsNotInOrderGrantsNothingAndIsLogged) {
    const Dictionary granted{{kName, true}};
    const PropertyList documents[] = {
        true,
        Array{granted},
        Dictionary{},
        Dictionary{{"Entitlements", true}},
        Dictionary{{"Entitlements", granted}, {"Users", "root"}},
        Dictionary{{"Entitlements", granted}, {"User", true}},
        Dictionary{{"Entitlements", granted}, {"User", 0.0}},
        Dictionary{{"Entitlements", granted}, {"User", -1}},
        Dictionary{{"Entitlements", granted}, {"User", 4294967295}},
        Dictionary{{"Entitlements", granted}, {"User", ""}},
        Dictionary{{"Entitlements", granted}, {"Group", Array{0}}},
        Dictionary{{"Entitlements", granted}, {"Unit", 1}},
        Dictionary{{"Entitlements", granted}, {"Label", ""}},
    };
    for (const PropertyList& document : documents) {
        const test::LogCapture log;
        write("bad.plist", document);
        EXPECT_FALSE(store_.valueForEntitlement(examplePeer(), kName));
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_TRUE(log.lines()[0].starts_with("<4>EntitlementStore: ")) << log.lines()[0];
    }
    const test::LogCapture log;
    directory_.write("entitlements.d/bad.plist", "<plist><dict><key>Entitle");
    write("good.plist", Dictionary{{"Entitlements", granted}});
    EXPECT_TRUE(store_.valueForEntitlement(examplePeer(), kName));
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(EntitlementsTest, LaterFilesOverrideEarlierOnesAndChangesCountAtOnce) {
    EXPECT_FALSE(store_.valueForEntitlement(examplePeer(), kName));  // not even a directory
    const auto grant = [](PropertyList value) {
        return Dictionary{{"Entitlements", Dictionary{{kName, std::move(value)}, {"other", "kept"}}}};
    };
    write("10-all.plist", grant(false));
    write("9-last.plist", grant("last"));  // byte order, not that of numbers
    write("90-other-entitlement.plist", Dictionary{{"Entitlements", Dictionary{{"another", 1}}}});
    write("99-other.txt", grant("ignored"));
    EXPECT_EQ(store_.valueForEntitlement(examplePeer(), kName), PropertyList("last"));
    Dictionary forOthers = grant("others");
    forOthers.set("User", 12345);
    write("95-others.plist", forOthers);
    EXPECT_EQ(store_.valueForEntitlement(examplePeer(), kName), PropertyList("last"));
    std::filesystem::remove(directory_.path() / "entitlements.d/9-last.plist");
    EXPECT_EQ(store_.valueForEntitlement(examplePeer(), kName), PropertyList(false));
    EXPECT_EQ(store_.valueForEntitlement(examplePeer(), "other"), PropertyList("kept"));
    EXPECT_FALSE(store_.valueForEntitlement(examplePeer(), "absent"));
}

}  // namespace
}  // namespace telvora
