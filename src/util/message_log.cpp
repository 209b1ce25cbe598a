// SPDX-License-Identifier: Apache-2.0
#include "util/message_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr std::string_view kNameStart = "telvorad_";
constexpr std::string_view kNameEnd = "_messageLog.diag";
constexpr double kExpiryAge = 86400;                             // seconds
constexpr int kOpenFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;  // opening a FIFO would block

// The part of a log file's name between its two underscores; std::nullopt for any other name.
std::optional<std::string_view> middleOfLogFileName(std::string_view name) {
    if (name.size() < kNameStart.size() + kNameEnd.size() || !name.starts_with(kNameStart) ||
        !name.ends_with(kNameEnd)) {
        return std::nullopt;
    }
    name.remove_prefix(kNameStart.size());
    name.remove_suffix(kNameEnd.size());
    return name.find('_') == std::string_view::npos ? std::optional(name) : std::nullopt;
}

std::optional<double> timeInFileName(const std::filesystem::path& path) {
    const std::string name = path.filename().string();
    const auto middle = middleOfLogFileName(name);
    int32_t seconds = 0;
    if (!middle) return std::nullopt;
    const char* const end = middle->data() + middle->size();
    const auto parsed = std::from_chars(middle->data(), end, seconds);
    if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
    return seconds;
}

// The file system's birth time; if it is not recorded, the time in the file's name.
std::optional<double> birthTime(const std::filesystem::path& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &status) == 0 &&
        (status.stx_mask & STATX_BTIME) != 0) {
        return static_cast<double>(status.stx_btime.tv_sec) + status.stx_btime.tv_nsec / 1e9;
    }
    return timeInFileName(path);
}

std::string dateText(double seconds) {
    const auto whole = static_cast<time_t>(std::floor(seconds));
    struct tm parts {};
    char text[64];
    if (gmtime_r(&whole, &parts) == nullptr) return "(null)";
    return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts)};
}

std::string dateText(std::optional<double> seconds) {
    return seconds ? dateText(*seconds) : "(null)";
}

struct LogFile {
    std::filesystem::path path;
    std::optional<double> created;
    bool regular = true;  // not a link, a FIFO or a device
};

void deleteFile(const LogFile& file) {
    unlink(file.path.c_str());  // on failure the next call finds the file again
    TELVORA_LOG(kLogInfo, "writeToLogFile: Deleted expired telvorad log file %s (%s)", file.path.c_str(),
                dateText(file.created).c_str());
}

// Hints at the likely cause: a confined process has no access to a directory that replaced its log directory.
void explain(const MessageLog& log, std::error_code error) {
    if (error != std::errc::permission_denied) return;
    TELVORA_LOG(
        kLogWarning,
        "writeToLogFile: %s can't be used; if it was removed or made anew since the daemon started, the daemon has to be restarted",
        log.directory.c_str());
}

void createDirectory(const MessageLog& log) {
    TELVORA_LOG(kLogInfo, "writeToLogFile: Creating telvorad log directory at %s", log.directory.c_str());
    std::error_code error;  // creating the file fails, too
    std::filesystem::create_directories(log.directory, error);
    explain(log, error);
}

std::vector<LogFile> listLogFiles(const MessageLog& log, std::error_code& error) {
    std::vector<LogFile> files;
    std::filesystem::directory_iterator entry(log.directory, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        std::error_code gone;  // counts as no regular file
        const std::filesystem::file_type type = entry->symlink_status(gone).type();
        if (middleOfLogFileName(entry->path().filename().string()) &&
            type != std::filesystem::file_type::directory) {
            files.push_back({entry->path(), log.creationDate(entry->path()),
                             type == std::filesystem::file_type::regular});
        }
        entry.increment(error);
    }
    return files;
}

// The log files in the directory, which is created if it is missing.
std::vector<LogFile> listOrCreate(const MessageLog& log) {
    std::error_code error;
    std::vector<LogFile> files = listLogFiles(log, error);
    if (error == std::errc::no_such_file_or_directory) {
        createDirectory(log);
    } else if (error) {
        TELVORA_LOG(kLogError, "writeToLogFile: Error reading from log directory: %s",
                    error.message().c_str());
        explain(log, error);
    } else {
        return files;
    }
    return {};
}

// Deletes all log files except the newest regular one, which it returns if it has not expired; std::nullopt
// if no file is kept.
std::optional<LogFile> keepNewest(const MessageLog& log, double now) {
    std::optional<LogFile> newest;
    for (LogFile& file : listOrCreate(log)) {
        const bool expired = file.created && now - *file.created > kExpiryAge;
        // An unknown date is older than all others.
        if (file.regular && !expired && (!newest || file.created > newest->created)) {
            if (newest) deleteFile(*newest);
            newest = std::move(file);
        } else {
            deleteFile(file);
        }
    }
    return newest;
}

std::optional<LogFile> createFile(const MessageLog& log, double now) {
    LogFile file{log.directory / (std::string(kNameStart) + std::to_string(static_cast<int32_t>(now)) +
                                  std::string(kNameEnd)),
                 std::nullopt};
    const UniqueFd fd(open(file.path.c_str(), O_WRONLY | O_CREAT | kOpenFlags, 0640));
    if (!fd) {
        TELVORA_LOG(kLogError, "writeToLogFile: Failed to create new telvorad log file %s",
                    file.path.c_str());
        return std::nullopt;
    }
    file.created = log.creationDate(file.path);
    TELVORA_LOG(kLogInfo, "writeToLogFile: Created new telvorad log file %s (%s)", file.path.c_str(),
                dateText(file.created).c_str());
    return file;
}

// The message with a blank before each of its lines that looks like the beginning of a record.
std::string inOneRecord(std::string_view message) {
    std::string text;
    text.reserve(message.size());
    for (size_t next; (next = message.find("\n(")) != std::string_view::npos;
         message.remove_prefix(next + 1)) {
        text.append(message.substr(0, next + 1)).push_back(' ');
    }
    return text.append(message);
}

bool append(const LogFile& file, std::string_view record) {
    const UniqueFd fd(open(file.path.c_str(), O_WRONLY | O_APPEND | kOpenFlags));
    if (!fd) return false;
    ssize_t written = -1;
    do {
        written = write(fd.get(), record.data(), record.size());
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(record.size());
}

}  // namespace

MessageLog::MessageLog(std::filesystem::path logDirectory)
    : directory(std::move(logDirectory)), creationDate(birthTime) {}

std::optional<std::filesystem::path> newestLogFile(const MessageLog& log) {
    std::error_code ignored;
    std::vector<LogFile> files = listLogFiles(log, ignored);
    std::erase_if(files, [](const LogFile& file) { return !file.regular; });
    const auto newest = std::max_element(
        files.begin(), files.end(), [](const LogFile& a, const LogFile& b) { return a.created < b.created; });
    return newest != files.end() ? std::optional(newest->path) : std::nullopt;
}

}  // namespace telvora

void TelvoradUtil::makeLogDirectory(const telvora::MessageLog& log) {
    std::error_code error;
    if (!std::filesystem::exists(log.directory, error) && !error) telvora::createDirectory(log);
}

void TelvoradUtil::writeToLogFile(const telvora::MessageLog& log, std::string_view message) {
    using namespace telvora;
    const double now = secondsFromTimeValue(log.clock());
    std::optional<LogFile> file = keepNewest(log, now);
    if (!file) file = createFile(log, now);
    if (!file) return;

    std::string record("(");
    record.append(dateText(now)).append(") ").append(inOneRecord(message)).append("\n");
    if (!append(*file, record)) {
        deleteFile(*file);
        return;
    }
    TELVORA_LOG(kLogInfo, "writeToLogFile: Saved log message to %s", file->path.c_str());
}
