// SPDX-License-Identifier: Apache-2.0
//
// ChildProcess: a program under test, with its output collected line by line.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/line_collector.h"
#include "util/unique_fd.h"

namespace telvora::test {

// The time limit for any expected event. Not reached unless a test fails.
constexpr std::chrono::seconds kPatience{60};

struct ChildProcessOptions {
    std::vector<std::string> arguments;  // the first is the program's path
    // The whole environment, apart from PATH and the options of the sanitizers.
    std::map<std::string, std::string> environment;
    // Tells the child that its standard error goes to the journal (JOURNAL_STREAM).
    bool journalStream = false;
};

// Not thread-safe, except the two collectors.
class ChildProcess {
  public:
    // Starts the program. It dies with the calling thread at the latest. Throws std::runtime_error if no
    // process can be made. A program that can't be executed exits with status 127.
    explicit ChildProcess(const ChildProcessOptions& options);
    // Kills the program (SIGKILL) if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    // Closes the child's standard input.
    void closeInput() { input_.reset(); }
    // Writes to the child's standard input.
    bool writeInput(std::string_view text) const;

    // The exit status, or 128 plus the number of the signal that ended the program. `std::nullopt` if it
    // still runs after `timeout`.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);

    const LineCollector& output() const { return *output_; }
    const LineCollector& errors() const { return *errors_; }

  private:
    pid_t pid_ = -1;
    UniqueFd pidFd_;
    UniqueFd input_;
    std::optional<int> status_;
    std::unique_ptr<LineCollector> output_;
    std::unique_ptr<LineCollector> errors_;
};

// The result of a program that ran to its end.
struct Finished {
    int status = -1;  // see waitForExit(); -1 if the program did not end
    std::vector<std::string> output;
    std::vector<std::string> errors;
};

// Runs a program with `input` on its standard input, and waits for its end for at most kPatience.
Finished runToEnd(const ChildProcessOptions& options, std::string_view input = "");

}  // namespace telvora::test
