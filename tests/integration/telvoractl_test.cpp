// SPDX-License-Identifier: Apache-2.0
//
// telvoractl as its users meet it, at the real daemon.
#include <gtest/gtest.h>

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
        std::vector<std::string> arguments{TELVORACTL_PATH, "--socket", socket,         command,
                                           "--client-type", "8",        "--session-id", "5"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        ChildProcess process({arguments, {}, false});
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

}  // namespace
}  // namespace telvora::test
