// SPDX-License-Identifier: Apache-2.0
//
// The destination of the log lines of util/log.h.
#pragma once

#include <string>

namespace telvora {

// Opens the system log and makes it the sink of all log lines: syslog(3) with facility daemon, or standard
// error with one "<level>line" per line (sd-daemon(3)). Standard error is used if it is a terminal, if the
// service manager collects it (JOURNAL_STREAM names its device and inode), or if no system log listens. Each
// line goes out in one write. Called once, by main, before it starts threads.
void startLogging(const std::string& programName);

// Closes the system log; later lines are dropped.
void stopLogging();

}  // namespace telvora
