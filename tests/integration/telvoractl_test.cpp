// SPDX-License-Identifier: Apache-2.0
//
// telvoractl as its users meet it, at the real daemon.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "telvora-lab/bags.h"
#include "telvora-lab/child_process.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::ChildProcess;
using lab::kPatience;
using lab::LineCollector;
using lab::openBag;

class Telvoractl : public DaemonFixture {
  protected:
    struct Result {
        int status;
        std::vector<std::string> output;
        std::vector<std::string> errors;
    };

    // Runs the program with client type 8 and a session ID, `input` on its standard input.
    static Result run(const std::string& socket, const std::string& command,
                      const std::vector<std::string>& more, const std::string& input = "") {
        std::vector<std::string> arguments{"--socket", socket,         command, "--client-type",
                                           "8",        "--session-id", "5"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return runTool(std::move(arguments), {}, input);
    }
    static Result runTool(std::vector<std::string> arguments,
                          const std::map<std::string, std::string>& environment,
                          const std::string& input = "") {
        arguments.insert(arguments.begin(), TELVORACTL_PATH);
        ChildProcess process({arguments, environment, false});
        process.writeInput(input);
        process.closeInput();
        const int status = process.waitForExit(kPatience).value_or(-1);
        return {status, linesOf(process.output()), linesOf(process.errors())};
    }

    void startWithBag() {
        laboratory().setBag("dravik", openBag());
        startDaemon();
    }

  private:
    static std::vector<std::string> linesOf(const LineCollector& collector) {
        collector.waitFor([](std::string_view) { return false; }, kPatience);  // to the end
        return collector.lines();
    }
};

TEST_F(Telvoractl, RunsASessionFromLines) {
    startDaemon();
    const Result unconfigured = run(daemon().socketPath(), "session", {}, "{\"category\":1,\"type\":2}\n");
    EXPECT_EQ(unconfigured.status, 1);
    EXPECT_EQ(unconfigured.output, (std::vector<std::string>{"{\"reportingStates\":null}"}));
    stopDaemon();

    startWithBag();
    const Result result =
        run(daemon().socketPath(), "session", {"--batch", "--client-name", "n"},
            "{\"category\":3,\"type\":4,\"payload\":{\"text\":\"ü\",\"real\":0.1,\"n\":-7}}\n"
            "\n"
            "{\"category\":3,\"type\":5}\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.errors.empty()) << result.errors.front();
    ASSERT_EQ(result.output.size(), 5u);  // states, two answers, flush, finish
    EXPECT_EQ(result.output[0], "{\"reportingStates\":[\"httpPost\"]}");
    EXPECT_TRUE(reports().waitForEvents(3, kPatience));
    bool found = false;
    for (const Dictionary& event : reports().events()) {
        const std::string* text = event.string("text");
        found = found ||
                (text != nullptr && *text == "ü" && event.real("real") == 0.1 && event.integer("n") == -7);
    }
    EXPECT_TRUE(found);
}

TEST_F(Telvoractl, SaysWhatIsWrongWithItsInput) {
    startWithBag();
    const std::pair<const char*, const char*> lines[] = {
        {"{\"category\":1,\"type\":2}\nnonsense", "telvoractl: line 2: "},
        {"[1]", "telvoractl: line 1: not an object"},
        {"{\"category\":1}", "telvoractl: line 1: \"type\" is missing"},
        {"{\"category\":-1,\"type\":2}", "telvoractl: line 1: \"category\" is not an integer"},
        {"{\"category\":1,\"type\":2,\"payload\":[]}", "telvoractl: line 1: \"payload\" is not an object"},
        {"{\"category\":1,\"type\":2,\"payload\":{\"k\":null}}", "telvoractl: line 1: null has no place"},
        {"{\"category\":1,\"type\":2,\"more\":3}", "telvoractl: line 1: \"more\" is unknown"},
    };
    for (const auto& [input, problem] : lines) {
        const Result result = run(daemon().socketPath(), "session", {}, input);
        EXPECT_EQ(result.status, 2) << input;
        ASSERT_EQ(result.errors.size(), 1u) << input;
        EXPECT_EQ(result.errors[0].rfind(problem, 0), 0u) << result.errors[0];
        EXPECT_EQ(result.output.back().rfind("{\"finish\":", 0), 0u) << input;
    }
}

TEST_F(Telvoractl, SendsOneReport) {
    startWithBag();
    const std::vector<std::string> plain{"--category", "3", "--type", "4", "--payload"};
    std::vector<std::string> report = plain;
    for (const char* more : {"a=b=c", "--payload", "n:=[1,{}]", "--payload-json", "{\"a\":1,\"j\":2.5}"})
        report.emplace_back(more);
    const Result result = run(daemon().socketPath(), "oneshot", report);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, (std::vector<std::string>{"outcome: finished"}));
    EXPECT_TRUE(reports().waitForEvents(1, kPatience));
    const std::vector<Dictionary> events = reports().events();
    EXPECT_EQ(*events[0].string("a"), "b=c");
    EXPECT_EQ(events[0].real("j"), 2.5);

    report.emplace_back("--json");
    const Result sent = run(daemon().socketPath(), "send", report);
    EXPECT_EQ(sent.status, 0);
    ASSERT_EQ(sent.output.size(), 4u);  // states, answer, flush, finish
    EXPECT_EQ(sent.output[0], "{\"reportingStates\":[\"httpPost\"]}");
    EXPECT_TRUE(reports().waitForEvents(3, kPatience));  // with the daemon's own

    for (const char* payload : {"a", "=b", "a:=", "a:=nope"}) {
        std::vector<std::string> bad = plain;
        bad.emplace_back(payload);
        EXPECT_EQ(run(daemon().socketPath(), "send", bad).status, 2) << payload;
    }
    EXPECT_EQ(run(daemon().socketPath(), "send", {"--category", "65536", "--type", "4"}).status, 2);
    EXPECT_EQ(run(daemon().socketPath() + ".none", "send", report).status, 3);
}

TEST_F(Telvoractl, FlushesUploadsAndShowsTheLog) {
    Dictionary bag = openBag();
    Dictionary section = *bag.dictionary("release");
    section.set("uploadServer", Dictionary{{"post_url", "@upload@"}});
    bag.set("release", std::move(section));
    laboratory().setBag("dravik", bag);
    startDaemon();
    const std::string socket = daemon().socketPath();
    EXPECT_EQ(run(socket, "flush", {"--batch"}).status, 0);
    EXPECT_TRUE(reports().waitForEvents(1, kPatience));  // the start, which was batched

    directory().write("a b%ü", "content");
    const std::string file = directory().path() / "a b%ü";
    EXPECT_EQ(run(socket, "upload", {file, "--json"}).output.back(), "{\"upload\":\"uploaded\"}");
    EXPECT_TRUE(laboratory().uploads().waitForUploads(1, kPatience));
    const Result mixed = run(socket, "session", {}, "states\nupload " + file + "\nupload\n");
    EXPECT_EQ(mixed.status, 2);
    EXPECT_EQ(mixed.errors, (std::vector<std::string>{"telvoractl: line 3: upload wants a path"}));
    EXPECT_EQ(laboratory().uploads().uploadCount(), 2u);
    for (const std::string& bad : {file + ".none", directory().path().string()})
        EXPECT_EQ(run(socket, "upload", {bad}).status, 2) << bad;

    const std::string logs = directory().path() / "logs";
    const Result log = runTool({"log", "-n", "1", "--json"}, {{"LOGS_DIRECTORY", logs}});
    ASSERT_EQ(log.output.size(), 1u);
    EXPECT_EQ(log.output[0].rfind("{\"text\":\"[", 0), 0u) << log.output[0];
    ChildProcess follow({{TELVORACTL_PATH, "log", "-f", "-n", "1"}, {{"LOGS_DIRECTORY", logs}}, false});
    ASSERT_TRUE(follow.output().waitFor([](std::string_view) { return true; }, kPatience));
    const size_t shown = follow.output().lineCount();
    run(socket, "upload", {file});
    EXPECT_TRUE(follow.output().waitFor([](std::string_view line) { return line.ends_with("%25%C3%BC"); },
                                        kPatience, shown));
}

TEST_F(Telvoractl, ReadsAndChangesWhatTheDaemonFindsInItsDirectories) {
    const std::filesystem::path state = directory().path() / "state";
    const std::filesystem::path config = directory().path() / "config";
    std::filesystem::create_directories(state);
    std::filesystem::permissions(directory().path(), std::filesystem::perms(0755));
    constexpr uid_t kSomebody = 65534;
    const bool isRoot = geteuid() == 0;
    ASSERT_TRUE(!isRoot || chown(state.c_str(), kSomebody, kSomebody) == 0);
    directory().write("config/device.plist",
                      "<plist version=\"1.0\"><dict><key>DeviceName</key><string>d</string></dict></plist>");
    directory().write("config/Preferences/fixed.plist",
                      "<plist version=\"1.0\"><dict><key>k</key><string>v</string></dict></plist>");
    const std::string own = "com.zandor.telvora";
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string output;  // the first line
    } steps[] = {
        {{"consent", "show"}, 0, "consent: off"},
        {{"consent", "on"}, 0, ""},
        {{"consent", "show", "--json"}, 0, "{\"consent\":true}"},
        {{"consent", "perhaps"}, 2, ""},
        {{"defaults", "write", own, "logLevel", "integer", "7"}, 0, ""},
        {{"defaults", "write", own, "logLevel", "integer", "7x"}, 2, ""},
        {{"defaults", "write", own, "a", "json", "[1,{\"b\":null}]"}, 2, ""},
        {{"defaults", "write", own, "uuid:c:", "string", "old"}, 0, ""},
        {{"defaults", "write", "../x", "k", "string", "v"}, 2, ""},
        {{"defaults", "write", "fixed", "k", "string", "w"}, 1, ""},
        {{"defaults", "read", "fixed", "k"}, 0, "v"},
        {{"defaults", "read", own, "--json"}, 0, "{\"logLevel\":7,\"uuid:c:\":\"old\"}"},
        {{"reset-identifiers"}, 0, "deleted: 1"},
        {{"defaults", "read", own, "--json"}, 0, "{\"logLevel\":7}"},
        {{"defaults", "delete", own, "logLevel"}, 0, ""},
        {{"defaults", "read", own, "logLevel"}, 1, ""},
        {{"log"}, 1, ""},
    };
    const std::map<std::string, std::string> environment{
        {"STATE_DIRECTORY", state}, {"CONFIGURATION_DIRECTORY", config}, {"LOGS_DIRECTORY", state / "none"}};
    for (const auto& [arguments, status, output] : steps) {
        const Result result = runTool(arguments, environment);
        const std::string what = testing::PrintToString(arguments);
        EXPECT_EQ(result.status, status) << what;
        EXPECT_EQ(result.output.empty() ? "" : result.output.front(), output) << what;
        EXPECT_EQ(result.errors.empty(), status == 0) << what;
    }
    EXPECT_NE(runTool({"device", "--json"}, environment).output.at(0).find("\"DeviceName\":\"d\""),
              std::string::npos);
    struct stat status {};
    ASSERT_EQ(stat((state / "Preferences" / (own + ".plist")).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, isRoot ? kSomebody : geteuid());  // so that the daemon can read it
}

}  // namespace
}  // namespace telvora::test
