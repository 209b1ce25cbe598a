// SPDX-License-Identifier: Apache-2.0
//
// telvora-bag as its users meet it: the program, its exit status and what it leaves on the disk.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "telvora-lab/child_process.h"
#include "telvora-lab/daemon_process.h"
#include "telvora-lab/temporary_directory.h"

namespace telvora::test {
namespace {

using lab::ChildProcess;
using lab::kPatience;
using lab::LineCollector;
using lab::TemporaryDirectory;

constexpr char kBag[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<plist version=\"1.0\"><dict><key>version</key><string>7.1</string>"
    "<key>release</key><dict/></dict></plist>\n";

class TelvoraBag : public testing::Test {
  protected:
    struct Result {
        int status;
        std::string output;
        std::string errors;
    };

    void SetUp() override {
        write("bag.plist", kBag);
        ASSERT_EQ(run({"keygen", "--key", path("key.pem"), "--public", path("public.der")}).status, 0);
        ASSERT_EQ(run({"sign", "--key", path("key.pem"), path("bag.plist"), path("signed")}).status, 0);
    }

    std::string path(const std::string& name) const { return directory_.path() / name; }
    void write(const std::string& name, const std::string& content) { directory_.write(name, content); }
    Result run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"/usr/bin/env", "-C", directory_.path(), TELVORA_BAG_PATH});
        ChildProcess process({arguments, {}, false});
        const int status = process.waitForExit(kPatience).value_or(-1);
        return {status, text(process.output()), text(process.errors())};
    }

  private:
    static std::string text(const LineCollector& lines) {
        lines.waitFor([](std::string_view) { return false; }, kPatience);  // to the end
        std::string all;
        for (const std::string& line : lines.lines())
            all += line + "\n";
        return all;
    }

    TemporaryDirectory directory_;
};

TEST_F(TelvoraBag, SignsWhatItThenVerifiesAndShows) {
    const Result verified = run({"verify", "--public", path("public.der"), path("signed")});
    EXPECT_EQ(verified.status, 0) << verified.errors;
    EXPECT_NE(verified.output.find("version 7.1"), std::string::npos) << verified.output;
    for (const char* file : {"signed", "bag.plist"}) {
        const Result shown = run({"show", path(file)});
        EXPECT_EQ(shown.status, 0) << shown.errors;
        EXPECT_NE(shown.output.find("<string>7.1</string>"), std::string::npos) << shown.output;
    }
    struct stat status {};
    ASSERT_EQ(stat(path("key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    // JSON is signed as the property list that it stands for, and a file's name needs no directory.
    write("bag.json", R"({"version": "7.1", "release": {"dashboard": {"port": 0}}})");
    ASSERT_EQ(run({"sign", "--key", "key.pem", "bag.json", "json.signed"}).status, 0);
    const Result json = run({"verify", "--public", "public.der", "json.signed"});
    EXPECT_NE(json.output.find("version 7.1"), std::string::npos) << json.errors;
    const Result linted = run({"lint", "json.signed"});
    EXPECT_EQ(linted.status, 1);
    EXPECT_NE(linted.output.find("release/dashboard/port: error: "), std::string::npos) << linted.output;
    write("reports", "{\"category\": 5, \"type\": 1}\n");
    const Result explained = run({"explain", "json.signed", "--client-type", "7", "--consent", "yes",
                                  "--country", "CH", "--draw", "0.5", "--events", "reports"});
    EXPECT_EQ(explained.status, 0) << explained.errors;
    EXPECT_NE(explained.output.find("\ndashboard\n  0 of 1 reports posted"), std::string::npos)
        << explained.output;
    EXPECT_EQ(run({"lint", "--json", path("bag.plist")}).output, "{\"findings\":[]}\n");

    ASSERT_EQ(run({"keygen", "--key", path("other.pem"), "--public", path("other.der")}).status, 0);
    const Result foreign = run({"verify", "--public", path("other.der"), path("signed")});
    EXPECT_EQ(foreign.status, 1);
    EXPECT_NE(foreign.errors.find("does not verify"), std::string::npos);
}

TEST_F(TelvoraBag, RefusesBadInputWithStatusTwoAndWritesNothing) {
    write("text", "This is no property list.");
    write("array.plist", "<plist version=\"1.0\"><array/></plist>");
    const std::string key = path("key.pem");
    const std::string der = path("public.der");
    const std::string out = path("out");
    const struct {
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {{}, "subcommand"},
        {{"melt"}, "subcommand"},
        {{"sign", "--key", key, path("bag.plist")}, "signed"},
        {{"sign", "--key", path("absent"), path("bag.plist"), out}, "absent: can't be read"},
        {{"sign", "--key", path("text"), path("bag.plist"), out}, "text: "},
        {{"sign", "--key", der, path("bag.plist"), out}, "public.der: "},
        {{"sign", "--key", key, path("text"), out}, "no property list"},
        {{"sign", "--key", key, path("array.plist"), out}, "no dictionary"},
        {{"sign", "--key", key, path("bag.plist"), path("nowhere/out")}, "nowhere"},
        {{"sign", "--key", key, path("signed"), out}, "signed document already"},
        {{"explain", path("bag.plist")}, "--client-type"},
        {{"explain", path("bag.plist"), "--client-type", "19"}, "19"},
        {{"explain", path("bag.plist"), "--client-type", "7", "--consent", "perhaps"}, "perhaps"},
        {{"explain", path("bag.plist"), "--client-type", "7", "--draw", "1.5"}, "1.5"},
        {{"explain", path("bag.plist"), "--client-type", "7", "--environment", "mars"},
         "no such environment"},
        {{"explain", path("bag.plist"), "--client-type", "7", "--device", path("text")},
         "text: no property list"},
        {{"explain", path("bag.plist"), "--client-type", "7", "--events", path("absent")},
         "absent: can't be read"},
        {{"explain", path("bag.plist"), "--client-type", "7", "--events", path("text")}, "text: line 1: "},
        {{"lint", path("text")}, "no property list"},
        {{"verify", "--public", key, path("signed")}, "no RSA public key"},
        {{"verify", "--public", der, path("bag.plist")}, "bag.plist: "},
        {{"show", path("absent")}, "can't be read"},
        {{"keygen", "--key", path("nowhere/key"), "--public", out}, "nowhere"},
        {{"keygen", "--key", out, "--public", out, "--bits", "512"}, "512"},
    };
    for (const auto& [arguments, message] : cases) {
        const Result result = run(arguments);
        const std::string what = testing::PrintToString(arguments);
        EXPECT_EQ(result.status, 2) << what;
        EXPECT_NE(result.errors.find(message), std::string::npos) << what << ": " << result.errors;
        EXPECT_FALSE(std::filesystem::exists(out)) << what;
    }
}

}  // namespace
}  // namespace telvora::test
