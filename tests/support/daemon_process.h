// SPDX-License-Identifier: Apache-2.0
//
// DaemonProcess: the real telvorad, with all its directories below one directory.
#pragma once

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "plist/property_list.h"
#include "telvora-lab/laboratory.h"
#include "tests/support/child_process.h"

namespace telvora::test {

// A daemon that talks to a laboratory.
struct DaemonOptions {
    std::filesystem::path directory;  // contains run/, state/, config/ and logs/, which are made if absent
    lab::Laboratory& laboratory;
    std::string frameworkDirectory = laboratory.pki().frameworkDirectory();
    int logLevel = 7;
    // The value of the entitlement for this process's user. Absent: no file grants anything.
    std::optional<PropertyList> entitlement = PropertyList(true);
    // Added to the domain "com.zandor.telvora"; overrides other values.
    Dictionary defaults = {};
    // A program that becomes the daemon (execve), with its arguments. Empty: the daemon is started directly.
    std::vector<std::string> launcher = {};
    // Whether the first connection to its socket starts it (systemd-socket-activate(1)). Replaces `launcher`.
    bool socketActivation = false;
};

class DaemonProcess : public ChildProcess {
  public:
    // Writes the configuration and starts the daemon.
    explicit DaemonProcess(const DaemonOptions& options);
    // Waits for the line that says that the daemon listens.
    bool waitUntilListening() const {
        return errors().waitForLine("<6>main: Listener resumes with sandbox, start loop.");
    }
    // With socketActivation: waits until its sockets accept the connection that starts the daemon.
    bool waitUntilActivatable() const {
        return errors().waitForLine("Listening on " + socketPath_ + ".Status as 4.");
    }
    const std::string& socketPath() const { return socketPath_; }
    std::vector<std::string> logLines() const { return errors().lines(); }
    size_t logLineCount() const { return errors().lineCount(); }
    // Ends the daemon (SIGTERM) and waits for its exit.
    std::optional<int> stop() {
        signal(SIGTERM);
        return waitForExit();
    }

  private:
    const std::string socketPath_;
};

}  // namespace telvora::test
