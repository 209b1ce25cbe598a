// SPDX-License-Identifier: Apache-2.0
//
// The files of a message log: found, created and deleted. Used by message_log.cpp alone.
#pragma once

#include <fcntl.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "util/message_log.h"

namespace telvora {

inline constexpr double kMessageLogExpiryAge = 86400;                         // seconds
inline constexpr int kMessageLogFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;  // opening a FIFO would block

struct LogFile {
    std::filesystem::path path;
    std::optional<double> created;  // seconds since 1970
    bool regular = true;            // not a link, a FIFO or a device
};

// "2015-11-16 08:00:00 +0000" for seconds since 1970.
std::string messageLogDate(double seconds);

// The file system's birth time; if it is not recorded, the time in the file's name.
std::optional<double> messageLogBirthTime(const std::filesystem::path& path);

// The log files in the directory.
std::vector<LogFile> listLogFiles(const MessageLog& log, std::error_code& error);

// Creates the log's directory. Failures are logged.
void createLogDirectory(const MessageLog& log);

// Deletes all log files except the newest regular one, which it returns if it has not expired; std::nullopt
// if no file is kept.
std::optional<LogFile> keepNewestLogFile(const MessageLog& log, double now);

// Creates a file. Failures are logged.
std::optional<LogFile> createLogFile(const MessageLog& log, double now);

void deleteLogFile(const LogFile& file);

}  // namespace telvora
