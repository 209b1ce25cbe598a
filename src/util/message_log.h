// SPDX-License-Identifier: Apache-2.0
//
// The local message log: one append-only text file of at most a day in a directory of its own. Format of a
// record:
//
//     (2015-11-16 08:00:00 +0000) [httpPost -> sendMessageWithDictionary] {...}
//
// and of a file name: telvorad_<creation time, seconds since 1970>_messageLog.diag
//
// A record may have several lines; only its first one begins with a parenthesis.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>

#include "util/time_value.h"

namespace telvora {

// Where the message log is kept and what time it is there.
struct MessageLog {
    std::filesystem::path directory;
    Clock clock = timeOfDay;
    // When a file was created, in seconds since 1970, or nothing when that can't be told. By default the file
    // system's birth time (statx(2)), or where it keeps none the time in the file's name.
    std::function<std::optional<double>(const std::filesystem::path&)> creationDate;

    explicit MessageLog(std::filesystem::path logDirectory);
};

// The newest message log file in a directory, or nothing.
std::optional<std::filesystem::path> newestLogFile(const MessageLog& log);

}  // namespace telvora

namespace TelvoradUtil {

// Makes the directory where it is missing. For a process that can't do so later, when it has confined itself.
void makeLogDirectory(const telvora::MessageLog& log);

// Appends one record to the current log file; starts a new file when there is none younger than a day, and
// deletes all others, and what has the name of a log file without being one, but for directories. Failures
// are logged and otherwise ignored: the message log never costs a report. A file that takes no more (a full
// disk) is deleted. Blocks on file I/O. Callable from any thread and from several processes at once; a record
// is appended with a single write.
void writeToLogFile(const telvora::MessageLog& log, std::string_view message);

}  // namespace TelvoradUtil
