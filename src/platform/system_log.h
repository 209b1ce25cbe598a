// SPDX-License-Identifier: Apache-2.0
//
// The destination of the log lines of util/log.h.
#pragma once

#include <string>

namespace telvora {

// Opens the system log and makes it the sink of all log lines: the socket /dev/log in the form of syslog(3),
// facility daemon, or standard error with one "<level>line" per line (sd-daemon(3)). Standard error is used
// if it is a terminal, if the service manager collects it (JOURNAL_STREAM names its device and inode), or if
// no system log listens. A line never waits for the log's reader: see LogWriter. Called once, by main, before
// it starts threads.
void startLogging(const std::string& programName);

// Allows a thread that writes the lines for which the reader was too slow. Called by main, when the process
// is confined.
void allowLogThread();

// Waits for the log's reader for half a second at most. Later lines are dropped.
void stopLogging();

}  // namespace telvora
