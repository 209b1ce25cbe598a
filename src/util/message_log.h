// SPDX-License-Identifier: Apache-2.0
//
// The local message log: append-only text files in a directory of their own, each used for at most a day. The
// bytes of the log are bounded: the oldest records go first, and one user's records take only a part in an
// hour, so that they can't displace those of all others. Format of a record:
//
//     (2015-11-16 08:00:00 +0000) [httpPost -> sendMessageWithDictionary] {...}
//
// and of a file name: telvorad_<creation time, seconds since 1970>_messageLog.diag
//
// A record may have several lines; only its first one begins with a parenthesis.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "util/time_value.h"

namespace telvora {

struct MessageLogState;  // of the writer: its file, and the users' parts

// The place, the clock and the bound of a message log. Copies write to the same log.
struct MessageLog {
    std::filesystem::path directory;
    Clock clock = timeOfDay;
    // The creation time of a file in seconds since 1970; std::nullopt if unknown. By default the file
    // system's birth time (statx(2)), or, where it does not record it, the time in the file's name.
    std::function<std::optional<double>(const std::filesystem::path&)> creationDate;

    // The most bytes of the log. One user adds at most an eighth of it in an hour.
    uint64_t maxBytes = uint64_t{8} << 20;
    std::shared_ptr<MessageLogState> state;

    explicit MessageLog(std::filesystem::path logDirectory);
};

// The newest message log file in the directory; std::nullopt if there is no such file.
std::optional<std::filesystem::path> newestLogFile(const MessageLog& log);

}  // namespace telvora

namespace TelvoradUtil {

// Creates the directory if it is missing. For a process that can't create it later, when it is confined.
void makeLogDirectory(const telvora::MessageLog& log);

// Appends one record to the current log file. Starts a new file if no file is younger than a day. Deletes all
// other files, and everything else that has the name of a log file, except directories. A file that takes no
// more data (a full disk) is deleted. Failures are logged and otherwise ignored: the message log never costs
// a report. `user`: the one whose client the record is about; its records over its part of the log are
// dropped, counted and logged at level 4. std::nullopt: no part applies. Blocks on file I/O. Callable from
// any thread and from several processes at once; a record is appended with a single write.
void writeToLogFile(const telvora::MessageLog& log, std::initializer_list<std::string_view> message,
                    std::optional<uid_t> user = std::nullopt);

}  // namespace TelvoradUtil
