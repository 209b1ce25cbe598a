// SPDX-License-Identifier: Apache-2.0
//
// Reads reports and commands from the lines of standard input. Reports are pipelined: the next line is sent
// while earlier ones wait for their answers. Answers are printed in the order of the lines.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "json/report_json.h"
#include "session_run.h"
#include "util/ascii.h"

namespace telvora::ctl {

namespace {

constexpr char kLineHelp[] =
    "Each line of standard input is a report or a word:\n"
    "  {\"category\":1,\"type\":2,\"payload\":{\"key\":\"value\"},\"flag\":0}\n"
    "               payload and flag may be left out; flag 1 sends at once, 2 promotes\n"
    "  flush        posts the batches\n"
    "  states       prints the backends that report\n"
    "  upload PATH  hands over a file\n"
    "  finish       flushes and finishes the session, as the end of the input does";

// Reads and executes the lines of a session.
class Lines {
  public:
    Lines(SessionRun& session, bool interactive) : session_(session), interactive_(interactive) {}

    // Runs until the end of the input or of the session. A malformed line ends it, except on a terminal.
    int read(std::istream& input) {
        int result = kDone;
        std::string text;
        for (size_t number = 1; prompt(), std::getline(input, text); ++number) {
            const std::string line(trimmed(text));
            if (line.empty()) continue;
            if (line == "finish") break;
            const int status = obey(line, interactive_ ? "" : "line " + std::to_string(number) + ": ");
            if (status == kNotDone && !interactive_) result = status;
            if (status == kDone || status == kNotDone || (interactive_ && status == kBadInput)) continue;
            return status;
        }
        const int waited = session_.wait();
        return waited != kDone ? waited : result;
    }

  private:
    int obey(const std::string& line, const std::string& place) {
        const std::string word = line.substr(0, line.find_first_of(" \t"));
        const bool isWord = word == "flush" || word == "states" || word == "upload" || word == "help";
        // The answers to earlier lines are printed first.
        auto message = isWord ? Dictionary() : messageOfJson(line);
        if (isWord || !message) {
            if (const int waited = session_.wait(); waited != kDone) return waited;
        }
        if (!message) return fail(kBadInput, place + message.error());
        if (!isWord) return send(std::move(*message));

        const std::string rest =
            line.substr(std::min(line.find_first_not_of(" \t", word.size()), line.size()));
        if (rest.empty() == (word == "upload")) {
            return fail(kBadInput, place + word + (rest.empty() ? " wants a path" : " stands alone"));
        }
        if (word == "flush") return session_.flush();
        if (word == "states") return session_.states();
        if (word == "upload") return session_.upload(rest);
        std::puts(kLineHelp);
        return kDone;
    }

    int send(const Dictionary& message) {
        const int sent = session_.send(message);
        if (sent != kDone) return sent;
        if (interactive_) return session_.wait();
        progress_.show(std::to_string(++reports_) + " reports");
        return kDone;
    }

    void prompt() const {
        if (!interactive_) return;
        std::fputs("> ", stdout);
        std::fflush(stdout);
    }

    SessionRun& session_;
    const bool interactive_;
    size_t reports_ = 0;
    Progress progress_{isatty(STDOUT_FILENO) == 0};
};

int runSession(const SessionOptions& options, const CommonOptions& common, bool aggregate) {
    const bool interactive = isatty(STDIN_FILENO) != 0 && !common.json;
    SessionRun session(options, Printer(!interactive));
    int status = session.open(common, aggregate);
    if (status != kDone) return status;
    if (interactive) std::puts(kLineHelp);
    status = Lines(session, interactive).read(std::cin);
    if (status == kDaemonMissing || status == kNoAnswer) return status;
    const int left = session.leave();  // reports before a malformed line are still sent
    return status != kDone ? status : left;
}

}  // namespace

Command addSessionCommand(CLI::App& app, const CommonOptions& common) {
    struct Options {
        SessionOptions session;
        bool aggregate = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("session", "Run a session from the lines of standard input");
    command->footer(std::string(kLineHelp) +
                    "\nEach answer is printed: on a terminal as text, else as a line of JSON.");
    addSessionOptions(*command, options->session);
    command->add_flag("--aggregate", options->aggregate, "Print the reports of the session's hierarchy");
    return {command, [options, &common] { return runSession(options->session, common, options->aggregate); }};
}

}  // namespace telvora::ctl
