// SPDX-License-Identifier: Apache-2.0
//
// ChildProcess: a program under test, with its output collected line by line.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "util/mutex.h"
#include "util/unique_fd.h"

namespace telvora::test {

// The time limit for any expected event. Not reached unless a test fails.
constexpr std::chrono::seconds kPatience{60};

// Stores the lines of a pipe. All operations are callable from any thread, and wait for at most kPatience.
class LineCollector {
  public:
    // Reads `pipe` on a thread until every writer has closed it.
    explicit LineCollector(UniqueFd pipe);

    std::vector<std::string> lines() const;
    // All lines. Waits for the end of the pipe.
    std::vector<std::string> linesToTheEnd() const;
    size_t lineCount() const;
    // Whether a line from position `from` on satisfies `wanted`. Waits for it.
    bool waitFor(const std::function<bool(std::string_view line)>& wanted, size_t from = 0) const;
    bool waitForLine(std::string_view line, size_t from = 0) const {
        return waitFor([line](std::string_view candidate) { return candidate == line; }, from);
    }
    bool waitForPart(std::string_view part, size_t from = 0) const {
        return waitFor([part](std::string_view line) { return line.find(part) != line.npos; }, from);
    }

  private:
    void read(UniqueFd pipe);

    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    std::vector<std::string> lines_ TELVORA_GUARDED_BY(mutex_);
    bool ended_ TELVORA_GUARDED_BY(mutex_) = false;
    std::jthread thread_;
};

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
    // Starts the program with `input`, a few KiB at most, on its standard input. It dies with the calling
    // thread at the latest. Throws std::runtime_error if no process can be made. A program that can't be
    // executed exits with status 127.
    explicit ChildProcess(const ChildProcessOptions& options, std::string_view input = "");
    // Kills the program (SIGKILL) if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    void closeInput() { input_.reset(); }
    // The exit status, or 128 plus the number of the signal that ended the program. `std::nullopt` if it
    // still runs after `timeout`.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout = kPatience);
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

struct Finished {
    std::optional<int> status;  // see waitForExit()
    std::vector<std::string> output, errors;
};

// Runs a program with `input` on its standard input to its end.
inline Finished runToEnd(const ChildProcessOptions& options, std::string_view input = "") {
    ChildProcess process(options, input);
    process.closeInput();
    const std::optional<int> status = process.waitForExit();
    return {status, process.output().linesToTheEnd(), process.errors().linesToTheEnd()};
}

}  // namespace telvora::test
