// SPDX-License-Identifier: Apache-2.0
//
// DaemonProcess: the real telvorad, with all its directories below one directory.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/property_list.h"
#include "telvora-lab/lab_pki.h"
#include "tests/support/child_process.h"

namespace telvora::test {

struct DaemonOptions {
    std::filesystem::path directory;  // contains run/, state/, config/ and logs/, which are made if absent
    std::string frameworkDirectory;
    std::string caFile;
    std::string storebagURL;

    int logLevel = 7;
    // The value of the entitlement for this process's user. Absent: no file grants anything.
    std::optional<PropertyList> entitlement = PropertyList(true);
    // Added to the domain "com.zandor.telvora"; overrides other values.
    Dictionary defaults;
    // A program that becomes the daemon (execve), with its arguments. Empty: the daemon is started directly.
    std::vector<std::string> launcher;
    // Whether the first connection to its socket starts it (systemd-socket-activate(1)). Replaces `launcher`.
    bool socketActivation = false;

    // The options for a daemon in `directory` that talks to a laboratory.
    static DaemonOptions forLaboratory(const std::filesystem::path& directory, const lab::LabPki& pki,
                                       const std::string& storebagURL);
};

class DaemonProcess {
  public:
    // Writes the configuration and starts the daemon.
    explicit DaemonProcess(DaemonOptions options);

    // Waits for the line that says that the daemon listens.
    bool waitUntilListening() const;
    // With socketActivation: waits until its sockets accept the connection that starts the daemon.
    bool waitUntilActivatable() const;
    std::string socketPath() const;
    pid_t pid() const { return process_.pid(); }
    ChildProcess& process() { return process_; }

    // Waits for `line` ("<6>main: ..."), for kPatience at most. Lines before position `from` don't count.
    bool waitForLine(std::string_view line, size_t from = 0) const;
    // Waits for a line that begins with `beginning`.
    bool waitForLineBeginning(std::string_view beginning, size_t from = 0) const;
    std::vector<std::string> logLines() const { return process_.errors().lines(); }
    size_t logLineCount() const { return process_.errors().lineCount(); }

    // Ends the daemon (SIGTERM) and returns its exit status, 128 plus the signal's number if a signal ended
    // it. `std::nullopt` if it did not end within kPatience.
    std::optional<int> stop();
    // The lines in which a sanitizer reported a fault of the daemon.
    std::vector<std::string> sanitizerReports() const;

  private:
    std::filesystem::path directory_;
    ChildProcess process_;
};

}  // namespace telvora::test
