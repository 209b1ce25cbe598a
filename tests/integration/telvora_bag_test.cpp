// SPDX-License-Identifier: Apache-2.0
//
// telvora-bag as a program: exit status, output and files.
#include <sys/stat.h>

#include "tests/support/expect_run.h"
#include "tests/support/temporary_directory.h"
#include "util/utf8.h"

namespace telvora::test {
namespace {

constexpr char kBag[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<plist version=\"1.0\"><dict><key>version</key><string>7.1</string>"
    "<key>release</key><dict/></dict></plist>\n";

class TelvoraBag : public testing::Test {
  protected:
    void SetUp() override {
        directory_.write("bag.plist", kBag);
        // JSON is signed as its property list.
        directory_.write("bag.json", R"({"version": "7.2", "release": {"dashboard": {"port": 0}}})");
        directory_.write("reports", "{\"category\": 5, \"type\": 1}\n");
        directory_.write("text", "This is no property list.");
        directory_.write("array.plist", "<plist version=\"1.0\"><array/></plist>");
        run("keygen --key key.pem --public public.der", 0);
        run("keygen --key other.pem --public other.der", 0);
        run("sign --key key.pem bag.plist signed", 0);
        run("sign --key key.pem bag.json json.signed", 0);
    }
    // In the directory with all these files.
    void run(const std::string& arguments, int status, const std::string& says = "") {
        const std::string directory = directory_.path();
        expectRun(wordsOf("/usr/bin/env -C " + directory + " " TELVORA_BAG_PATH " " + arguments), status,
                  says);
    }

    TemporaryDirectory directory_;
};

TEST_F(TelvoraBag, SignsWhatItThenVerifiesShowsAndJudges) {
    run("verify --public public.der signed", 0, "version 7.1");
    run("verify --public public.der json.signed", 0, "version 7.2");
    run("verify --public other.der signed", 1, "does not verify");
    run("show signed", 0, "<string>7.1</string>");
    run("show bag.plist", 0, "<string>7.1</string>");
    run("lint json.signed", 1, "release/dashboard/port: error: ");
    run("lint --json bag.plist", 0, "{\"findings\":[]}");
    run("explain json.signed --client-type 7 --consent yes --country CH --draw 0.5 --events reports", 0,
        "  0 of 1 reports posted");
    struct stat status {};
    ASSERT_EQ(stat((directory_.path() / "key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(TelvoraBag, NamesTheLimitThatABagIsOver) {
    std::string many = "<dict><key>k</key><array>", numbers = "{\"k\": [7";
    for (int i = 0; i < 1 << 21; ++i)
        many += "<true/>";
    for (int i = 0; i < 600000; ++i)
        numbers += ",7";
    const std::string tooLong =
        "longer than the 12576768 bytes of which a signed document of 16 MiB can be made";
    const struct {
        std::string bag, limit;
        int lintStatus;
    } cases[] = {
        {"<dict><key>k</key><string>" + std::string(12576768, 'x') + "</string></dict>", tooLong, 1},
        {numbers + "]}", tooLong, 1},
        {many + "</array></dict>", "more than 2097152 values", 2},
    };
    for (const auto& [bag, limit, lintStatus] : cases) {
        directory_.write("bag", bag);
        run("sign --key key.pem bag out", 2, "telvora-bag: bag: " + limit);
        run("lint bag", lintStatus, limit);
    }
}

TEST_F(TelvoraBag, RefusesBadInputWithStatusTwoAndWritesNothing) {
    const struct {
        const char* arguments;
        const char* says;
    } cases[] = {
        {"", "subcommand"},
        {"melt", "subcommand"},
        {"sign --key key.pem bag.plist", "signed"},
        {"sign --key absent bag.plist out", "absent: can't be read"},
        {"sign --key text bag.plist out", "text: "},
        {"sign --key public.der bag.plist out", "public.der: "},
        {"sign --key key.pem text out", "no property list"},
        {"sign --key key.pem array.plist out", "no dictionary"},
        {"sign --key key.pem bag.plist nowhere/out", "nowhere"},
        {"sign --key key.pem signed out", "signed document already"},
        {"explain bag.plist", "--client-type"},
        {"explain bag.plist --client-type 19", "19"},
        {"explain bag.plist --client-type 7 --consent perhaps", "perhaps"},
        {"explain bag.plist --client-type 7 --draw 1.5", "1.5"},
        {"explain bag.plist --client-type 7 --environment mars", "no such environment"},
        {"explain bag.plist --client-type 7 --device text", "text: no property list"},
        {"explain bag.plist --client-type 7 --events absent", "absent: can't be read"},
        {"explain bag.plist --client-type 7 --events text", "text: line 1: "},
        {"lint text", "no property list"},
        {"verify --public key.pem signed", "no RSA public key"},
        {"verify --public public.der bag.plist", "bag.plist: "},
        {"show absent", "can't be read"},
        {"keygen --key nowhere/key --public out", "nowhere"},
        {"keygen --key out --public out --bits 512", "512"},
    };
    for (const auto& [arguments, says] : cases) {
        run(arguments, 2, says);
        EXPECT_FALSE(exists(directory_.path() / "out")) << arguments;
    }
}

TEST_F(TelvoraBag, ShowsTextsOfABagWithoutTheirControlCharacters) {
    const std::string hostile = R"(x\u001b]0;t\u0007\u009b1m\u202e\n  => reporting)";
    directory_.write("hostile.json", R"({"version": ")" + hostile + R"(", ")" + hostile +
                                         R"(": 1, "release": {")" + hostile +
                                         R"(": {}, "httpPost": {"clients": [
        {"client": ")" + hostile + R"(", "service": ")" +
                                         hostile + R"("},
        {"locale_whitelist": "US", "filters": [{"key": ")" +
                                         hostile + R"(", "action": "sha256"}],
         "sampling_threshold": 1, "post_url": "http://)" +
                                         hostile + R"("}]}}})");
    for (const std::string arguments :
         {"lint hostile.json", "lint --json hostile.json", "verify --public public.der hostile.json",
          "explain hostile.json --client-type 8 --consent yes --country US --log --events reports"}) {
        const Finished finished = expectRun(
            wordsOf("/usr/bin/env -C " + directory_.path().string() + " " TELVORA_BAG_PATH " " + arguments),
            arguments[0] == 'e'   ? 0
            : arguments[0] == 'v' ? 2
                                  : 1);
        for (const auto& lines : {finished.output, finished.errors}) {
            for (const std::string& line : lines) {
                EXPECT_EQ(escapeControlCharacters(line), line) << arguments;
                EXPECT_NE(line.find("=> reporting"), 2) << arguments << " has a forged line";
            }
        }
    }
}

}  // namespace
}  // namespace telvora::test
