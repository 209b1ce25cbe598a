// SPDX-License-Identifier: Apache-2.0
//
// Where the log lines of util/log.h go.
#pragma once

#include <string>

namespace telvora {

// Opens the system log and makes it the sink of all log lines: syslog(3) with facility daemon; or, when
// standard error is a terminal, is what the service manager collects (JOURNAL_STREAM names its device and
// inode), or no system log is there to connect to, standard error, one "<level>line" each (sd-daemon(3)).
// Each line goes out in one write. Called once, by main, before any other thread exists.
void startLogging(const std::string& programName);

// Closes the system log; later lines are dropped.
void stopLogging();

}  // namespace telvora
