// SPDX-License-Identifier: Apache-2.0
//
// telvoractl as a program, with the real daemon and with the daemon's directories; and telvora-bag.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/daemon_fixture.h"
#include "tests/support/scripted_server.h"
#include "util/utf8.h"

namespace telvora::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

class Telvoractl : public DaemonFixture {
  protected:
    Telvoractl() {
        laboratory().setBag("dravik", openBag({{"uploadServer", Dictionary{{"post_url", "@upload@"}}}}));
        startDaemon();
        socket_ = daemon().socketPath();
    }
    // A command that has a session.
    Finished run(const std::string& command, int status, const std::string& says = "",
                 std::string_view input = "") {
        return expectRun(TELVORACTL_PATH " --socket " + socket_ + " " + command +
                             " --session-id 5 --client-type " + clientType_,
                         status, says, input);
    }

    std::string socket_;
    std::string clientType_ = "8";
};

TEST_F(Telvoractl, RunsASessionFromLines) {
    const Finished session =
        run("session --batch --client-name n", 0, "",
            "{\"category\":3,\"type\":4,\"payload\":{\"text\":\"ü\",\"real\":0.1,\"n\":-7}}\n"
            "\n"
            "{\"category\":3,\"type\":5}\n");
    EXPECT_THAT(session.errors, testing::IsEmpty());
    ASSERT_EQ(session.output.size(), 5u);  // states, two answers, flush, finish
    EXPECT_EQ(session.output[0], "{\"reportingStates\":[\"httpPost\",\"uploadServer\"]}");
    EXPECT_TRUE(waitForEvents(3));
    const auto isReport = [](const Dictionary& event) {
        const std::string* text = event.string("text");
        return text != nullptr && *text == "ü" && event.real("real") == 0.1 && event.integer("n") == -7;
    };
    EXPECT_THAT(reports().events(), Contains(testing::Truly(isReport)));

    const std::pair<const char*, const char*> bad[] = {
        {"{\"category\":1,\"type\":2}\nnonsense", "telvoractl: line 2: "},
        {"[1]", "telvoractl: line 1: not an object"},
        {"{\"category\":1}", "telvoractl: line 1: \"type\" is missing"},
        {"{\"category\":-1,\"type\":2}", "telvoractl: line 1: \"category\" is not an integer"},
        {"{\"category\":1,\"type\":2,\"payload\":[]}", "telvoractl: line 1: \"payload\" is not an object"},
        {"{\"category\":1,\"type\":2,\"payload\":{\"k\":null}}", "telvoractl: line 1: null has no place"},
        {"{\"category\":1,\"type\":2,\"more\":3}", "telvoractl: line 1: \"more\" is unknown"},
        {"states\nupload", "telvoractl: line 2: upload wants a path"},
    };
    for (const auto& [input, problem] : bad) {
        const Finished result = run("session", 2, problem, input);
        EXPECT_THAT(result.errors, ElementsAre(StartsWith(problem)));
        EXPECT_THAT(result.output.back(), StartsWith("{\"finish\":")) << input;
    }
    clientType_ = "9";  // a type without a bag
    run("session", 1, "{\"reportingStates\":null}", "{\"category\":1,\"type\":2}\n");
}

TEST_F(Telvoractl, SendsOneReport) {
    const std::string report =
        " --category 3 --type 4 --payload a=b=c --payload n:=[1,{}] --payload-json {\"a\":1,\"j\":2.5}";
    run("oneshot" + report, 0, "outcome: finished");
    EXPECT_TRUE(waitForEvents(1));
    const std::vector<Dictionary> events = reports().events();
    EXPECT_EQ(*events[0].string("a"), "b=c");
    EXPECT_EQ(events[0].real("j"), 2.5);
    EXPECT_EQ(*events[0].string(kTelvoraUserInfoClientName), "telvoractl");  // user info is required

    const Finished sent = run("send --json" + report, 0);
    ASSERT_EQ(sent.output.size(), 4u);  // states, answer, flush, finish
    EXPECT_EQ(sent.output[0], "{\"reportingStates\":[\"httpPost\",\"uploadServer\"]}");
    EXPECT_TRUE(waitForEvents(3));  // with the daemon's own

    for (const char* payload : {"a", "=b", "a:=", "a:=nope"})
        run(std::string("send --category 3 --type 4 --payload ") + payload, 2);
    run("send --category 65536 --type 4", 2);

    run("send --confirm" + report, 0, "verdict: delivered");
    run("flush", 0, "flush: no report was waiting");
    reports().setFault(lab::ReportingFault::notFound);
    run("send" + report, 0);
    run("send --confirm" + report, 1, "the report was not delivered: rejected");
    expectLine("<4>HTTPSPostBackend(postJsonMessage): " + reports().eventsURL() + " answered 404");
    reports().setFault(lab::ReportingFault::none);
    clientType_ = "3";
    run("send" + report, 1, "no bag exists for client type 3, only for 5, 6");
    clientType_ = "8";

    // Nobody may ask the daemon, nor read the files: each command fails with the reason.
    if (geteuid() == 0) {
        letOthersIn();
        for (const char* command : {"device", "consent show", "refresh", "status"})
            expectRun(std::string(kAsNobody) + TELVORACTL_PATH " --socket " + socket_ + " " + command, 1,
                      "for root, its own user and the group telvora-admin");
        const std::map<std::string, std::string> state{{"STATE_DIRECTORY", directory().path() / "state"}};
        for (const char* command : {"reset-identifiers", "defaults list", "consent on"})
            expectRun(std::string(kAsNobody) + TELVORACTL_PATH " " + command, 1, "Permission denied", "",
                      state);
    }
    laboratory().setBag("dravik", openBag());
    expectRun(TELVORACTL_PATH " refresh --socket " + socket_, 0, "dravik");
    expectRun(TELVORACTL_PATH " device --json --socket " + socket_, 0, "\"countryCode\":\"US\"");
    bags().setFault("dravik", lab::BagFault::foreignKey);
    expectRun(TELVORACTL_PATH " refresh --socket " + socket_, 1, "not all bags could be fetched");

    std::filesystem::remove(laboratory().pki().frameworkDirectory() + "/publicKey.der");
    expectRun(TELVORACTL_PATH " status --socket " + socket_, 0, "no public key: no bag can be verified");
    stopDaemon();
    startDaemon([](DaemonOptions& options) {
        options.defaults = {{"idleMilisseconds", 1}, {"clientKey", "/none.pem"}};
    });
    expectLineBeginning("<4>main: No bag can be verified: there is no public key publicKey.der in ");
    expectLine(
        "<4>Settings: com.zandor.telvora has the unknown key \"idleMilisseconds\"; did you mean "
        "idleMilliseconds?");
    expectLine("<4>Settings: clientKey can't be used: /none.pem: can't be opened: No such file or directory");
    socket_ += ".none";
    run("send" + report, 3);
}

TEST_F(Telvoractl, FlushesUploadsAndShowsTheLog) {
    run("flush --batch", 0);
    EXPECT_TRUE(waitForEvents(1));  // the start message, which was batched

    const std::string file = directory().write("b%ü", "content");
    run("upload --json " + file, 0, "{\"upload\":\"uploaded\"}");
    run("session", 0, "", "upload " + file + "\n");
    EXPECT_EQ(laboratory().uploads().uploadCount(), 2u);
    for (const std::string& bad : {file + ".none", directory().path().string()})
        run("upload " + bad, 2);

    const std::map<std::string, std::string> logs{{"LOGS_DIRECTORY", directory().path() / "logs"}};
    const Finished log = expectRun(TELVORACTL_PATH " log -n 1 --json", 0, "", "", logs);
    EXPECT_THAT(log.output, ElementsAre(StartsWith("{\"text\":\"[")));
    ChildProcess follow({{TELVORACTL_PATH, "log", "-f", "-n", "1"}, logs});
    ASSERT_TRUE(follow.output().waitForPart(""));
    const size_t shown = follow.output().lineCount();
    run("upload " + file, 0);
    EXPECT_TRUE(
        follow.output().waitFor([](std::string_view line) { return line.ends_with("%25%C3%BC"); }, shown));

    laboratory().setBag("pellam", bagWithBackends({}));
    clientType_ = "10";
    run("flush", 1, "The session's bag names no backends");
}

TEST(TelvoractlOffline, ReadsAndChangesWhatTheDaemonFindsInItsDirectories) {
    const TemporaryDirectory directory;
    const std::filesystem::path state = directory.path() / "state";
    create_directories(state);
    permissions(directory.path(), std::filesystem::perms(0755));
    const bool isRoot = geteuid() == 0;
    const uid_t owner = isRoot ? 65534 : geteuid();
    ASSERT_EQ(chown(state.c_str(), owner, static_cast<gid_t>(-1)), 0);
    for (const char* file : {"device", "Preferences/fixed"}) {
        directory.write(
            std::string("config/") + file + ".plist",
            "<plist version=\"1.0\"><dict><key>DeviceName</key><string>d</string></dict></plist>");
    }
    const struct {
        const char* arguments;
        int status;
        const char* says = "";
    } steps[] = {
        {"consent show", 0, "consent: off"},
        {"consent on", 0},
        {"consent show --json", 0, "{\"consent\":true}"},
        {"consent perhaps", 2, "perhaps"},
        {"defaults write com.zandor.telvora logLevel integer 7", 0},
        {"defaults write com.zandor.telvora logLevel integer 7x", 2, "7x"},
        {"defaults write com.zandor.telvora logLevel integer 0", 2, "must be an integer from 3 to 7"},
        {"defaults write com.zandor.telvora logLevel string 7", 2, "must be an integer from 3 to 7"},
        {"defaults write com.zandor.telvora loglevl integer 7", 2, "did you mean logLevel?"},
        {"defaults write com.zandor.timd k integer 7", 2, "did you mean com.zandor.timed?"},
        {"defaults write com.zandor.telvora vodexAdaptorPath string /a", 2, "administrator's file"},
        {"defaults write com.zandor.telvora a json [1,{\"b\":null}]", 2, "null"},
        {"defaults write --force com.zandor.telvora uuid:c: string old", 0},
        {"defaults write --force ../x k string v", 2, "../x"},
        {"defaults write --force fixed DeviceName string w", 1, "fixed"},
        {"defaults read fixed DeviceName", 0, "d"},
        {"defaults read com.zandor.telvora --json", 0, "{\"logLevel\":7,\"uuid:c:\":\"old\"}"},
        {"reset-identifiers", 0, "deleted: 1"},
        {"defaults write --force com.zandor.telvora idleMillisecond integer 1", 0},
        {"defaults list", 0, "did you mean idleMilliseconds?"},
        {"defaults list --json", 0, "\"needsRestart\":false,\"source\":\"state\",\"value\":7}"},
        {"defaults delete com.zandor.telvora idleMillisecond", 0},
        {"defaults read com.zandor.telvora --json", 0, "{\"logLevel\":7}"},
        {"defaults delete com.zandor.telvora logLevel", 0},
        {"defaults read com.zandor.telvora logLevel", 1, "logLevel"},
        {"defaults delete com.zandor.telvora logLevel", 1, "has no \"logLevel\""},
        {"defaults write com.zandor.telvora telvora_storebag_url string https://a/b/", 2, "without a slash"},
        {"defaults write com.zandor.telvora httpsPostURL string a/b", 2, "absolute http or https URL"},
        {"tail -n -1", 2, "-1"},
        {"log", 1, "none"},
        {"device --json", 0, "\"DeviceName\":\"d\""},
    };
    for (const auto& [arguments, status, says] : steps) {
        const Finished run = expectRun(std::string(TELVORACTL_PATH " ") + arguments, status, says, "",
                                       {{"STATE_DIRECTORY", state},
                                        {"CONFIGURATION_DIRECTORY", directory.path() / "config"},
                                        {"LOGS_DIRECTORY", state / "none"}});
        EXPECT_EQ(run.errors.empty(), status == 0) << arguments;
    }
    // A client's text can't control the terminal, and truncated text still gives valid JSON.
    directory.write("log/telvorad_1_messageLog.diag",
                    "(2015-11-16 08:00:00 +0000) \x1b]0;x\x07\xc2\x9b"
                    "1m \xc3\n\tü\n");
    const std::map<std::string, std::string> logs{{"LOGS_DIRECTORY", directory.path() / "log"}};
    EXPECT_THAT(expectRun(TELVORACTL_PATH " log", 0, "", "", logs).output,
                ElementsAre("(2015-11-16 08:00:00 +0000) \\x1b]0;x\\x07\\xc2\\x9b1m \\xc3", "\tü"));
    EXPECT_THAT(expectRun(TELVORACTL_PATH " log --json", 0, "", "", logs).output,
                ElementsAre("{\"text\":\"\\u001B]0;x\\u0007\\u009b1m \xef\xbf\xbd\\n\\tü\","
                            "\"time\":\"2015-11-16 08:00:00 +0000\"}"));
    struct stat file {};
    ASSERT_EQ(stat((state / "Preferences/com.zandor.telvora.plist").c_str(), &file), 0);
    EXPECT_EQ(file.st_uid, owner);  // readable by the daemon
}

TEST(Programs, HaveAVersionAndSuggestCommands) {
    for (const char* program : {TELVORACTL_PATH, TELVORA_BAG_PATH, TELVORAD_PATH})
        expectRun(std::string(program) + " --version", 0, "telvora");
    expectRun(TELVORAD_PATH " --help", 0, "Usage: telvorad");
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {TELVORACTL_PATH, "stauts", "there is no subcommand \"stauts\"; did you mean status?"},
        {TELVORACTL_PATH, "--json defaults lst", "did you mean list?"},
        {TELVORACTL_PATH, "doctor --client-typ=8", "no option \"--client-typ\"; did you mean --client-type?"},
        {TELVORACTL_PATH, "status --jsn", "did you mean --json?"},
        {TELVORACTL_PATH, "defaults", "subcommand"},
        {TELVORA_BAG_PATH, "verfiy a b", "did you mean verify?"}};
    for (const auto& [program, arguments, says] : cases)
        expectRun(std::string(program) + " " + arguments, 2, says);
}

class TelvoraBag : public testing::Test {
  protected:
    void SetUp() override {
        directory_.write("bag.plist",
                         "<plist version=\"1.0\"><dict><key>version</key><string>7.1</string>"
                         "<key>release</key><dict/></dict></plist>");
        // JSON is signed as its property list.
        directory_.write("bag.json", R"({"version": "7.2", "release": {"dashboard": {"port": 0}}})");
        directory_.write("reports", "{\"category\": 5, \"type\": 1}\n");
        directory_.write("text", "This is no property list.");
        directory_.write("array.plist", "<plist version=\"1.0\"><array/></plist>");
        run("keygen --key key.pem --public public.der", 0);
        run("keygen --key other.pem --public other.der", 0);
        run("sign --key key.pem bag.plist signed", 0);
        run("sign --no-lint --key key.pem bag.json json.signed", 0);
    }
    // In the directory with all these files.
    void run(const std::string& arguments, int status, const std::string& says = "") {
        expectRun("/usr/bin/env -C " + directory_.path().string() + " " TELVORA_BAG_PATH " " + arguments,
                  status, says);
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
    run("sign --key key.pem bag.json refused", 1, "release/dashboard/port: error: ");
    EXPECT_FALSE(exists(directory_.path() / "refused"));
    run("keygen --force --key other.pem --public other.der", 0);
    run("diff bag.plist signed", 0, "the same for all sessions");
    run("explain json.signed --client-type 7 --consent yes --country CH --draw 0.5 --events reports", 0,
        "  0 of 1 reports posted");
    struct stat status {};
    ASSERT_EQ(stat((directory_.path() / "key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(TelvoraBag, PublishesWithLaterDatesAndGoesBack) {
    const auto date = [this] { return std::filesystem::last_write_time(directory_.path() / "served"); };
    run("publish --key key.pem bag.plist served", 0);
    for (const char* version : {"7.3", "7.4"}) {
        const auto before = date();
        directory_.write("next.json", std::string(R"({"version": ")") + version + R"(", "release": {}})");
        run("publish --key key.pem next.json served", 0);
        EXPECT_GE(date() - before, std::chrono::seconds(1));
        run("show served", 0, version);
    }
    run("publish --key key.pem bag.json served", 1, "error: ");
    for (const char* version : {"7.3", "7.1"}) {
        const auto before = date();
        run("rollback served", 0);
        EXPECT_GE(date() - before, std::chrono::seconds(1));
        run("show served", 0, version);
        run("verify --public public.der served", 0);
    }
    run("rollback served", 2, "no earlier document");
}

TEST_F(TelvoraBag, FindsAnswersOfBagServersThatMisleadDevices) {
    constexpr char kDate[] = "Last-Modified: Mon, 16 Nov 2015 08:00:00 GMT\r\n";
    const std::string document = readFile(directory_.path() / "signed");
    struct {
        const char* what;
        const char* firstHeaders;
        const char* unchanged;  // the answer to a device that has the bag; empty: the bag
        const char* newer;      // to a device with a newer one
        int status;
        const char* says;
    } const cases[] = {
        {"good", "Cache-Control: max-age=600\r\n", "304 Not Modified", "", 0,
         "is answered 304 without a body"},
        {"another key", "", "304 Not Modified", "", 1, "does not verify with other.der"},
        {"304 without a date", "", "304", "", 1, "304 has no Last-Modified"},
        {"never 304", "", "", "", 1, "each device loads it at each fetch"},
        {"by comparison", "", "304 Not Modified", "304 Not Modified", 1, "devices keep the bad bag"},
        {"no blank", "Cache-Control: public,max-age=600\r\n", "304 Not Modified", "", 1,
         "devices read 86400 s"},
        {"capitals", "Cache-Control: Max-Age=600\r\n", "304 Not Modified", "", 1, "devices read 86400 s"},
    };
    for (const auto& [what, firstHeaders, unchanged, newer, status, says] : cases) {
        SCOPED_TRACE(what);
        const ScriptedServer server([&, firstHeaders = firstHeaders, unchanged = unchanged,
                                     newer = newer](ScriptedServer::Connection& connection) {
            for (std::string request; !(request = connection.readRequest()).empty();) {
                const bool conditional = request.find("If-Modified-Since") != request.npos;
                const bool same = request.find("2015 08:00:00") != request.npos;
                const std::string line = !conditional ? "" : same ? unchanged : newer;
                const std::string body = line.empty() ? document : "";
                connection.send("HTTP/1.1 " + (line.empty() ? "200 OK" : line) + "\r\n" +
                                (line == "304" ? "" : kDate) + firstHeaders +
                                "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
            }
        });
        const bool isOther = std::string_view(what) == "another key";
        run("probe --public " + std::string(isOther ? "other.der " : "public.der ") +
                server.url("/bags/dravik"),
            status, says);
    }
}

TEST_F(TelvoraBag, SaysForWhichSessionsABagDiffers) {
    const auto bag = [](const char* countries, const char* rest = R"("sampling_threshold": 1)") {
        return std::string(R"({"version": "1", "release": {"httpPost": {"clients": [{"client": "player",)"
                           R"("post_url": "https://a.example/", "filters": [], "locale_whitelist": ")") +
               countries + "\", " + rest + "}]}}}";
    };
    directory_.write("old.json", bag("US"));
    directory_.write("new.json", bag("US,CH"));
    const Finished difference =
        expectRun(TELVORA_BAG_PATH " diff " + (directory_.path() / "old.json").string() + " " +
                      (directory_.path() / "new.json").string(),
                  1, "  + httpPost: => reporting");
    EXPECT_THAT(difference.output,
                testing::Contains(
                    "release, client \"player\", service \"any other service\", country CH, with consent"));
    EXPECT_THAT(difference.output, testing::Not(testing::Contains(testing::HasSubstr("country US"))));
    EXPECT_THAT(difference.output, testing::Not(testing::Contains(testing::HasSubstr("any other client"))));
    directory_.write("drawn.json", bag("US", R"("sampling_threshold": 0.5)"));
    run("diff old.json drawn.json", 1, "+ httpPost: sampling threshold 0.5");
    directory_.write("phones.json", bag("US", R"("sampling_threshold": 1, "device_whitelist": "phone")"));
    run("diff old.json phones.json", 1, "- httpPost: => reporting");
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
    const std::pair<const char*, int> cases[] = {
        {"lint hostile.json", 1},
        {"lint --json hostile.json", 1},
        {"verify --public public.der hostile.json", 2},
        {"explain hostile.json --client-type 8 --consent yes --country US --log --events reports", 0}};
    for (const auto& [arguments, status] : cases) {
        const Finished finished = expectRun(
            "/usr/bin/env -C " + directory_.path().string() + " " TELVORA_BAG_PATH " " + arguments, status);
        for (const auto& lines : {finished.output, finished.errors}) {
            for (const std::string& line : lines) {
                EXPECT_EQ(escapeControlCharacters(line), line) << arguments;
                EXPECT_NE(line.find("=> reporting"), 2) << arguments << " has a forged line";
            }
        }
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
        {"keygen --key key.pem --public out", "key.pem: exists; --force"},
        {"keygen --key out --public public.der", "public.der: exists; --force"},
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
        {"keygen --force --key key.pem --public ./key.pem", "two files"},
        {"sign --key array.plist bag.plist out", "no private key in PEM form"},
        {"publish --key key.pem bag.plist -", "no name of a file"},
        {"probe https://127.0.0.1:1/", "no address of a bag"},
        {"probe https://127.0.0.1:1/dravik", "connect"},
        {"keygen --key out --public out --bits 512", "512"},
    };
    for (const auto& [arguments, says] : cases) {
        run(arguments, 2, says);
        EXPECT_FALSE(exists(directory_.path() / "out")) << arguments;
    }
}

}  // namespace
}  // namespace telvora::test
