// SPDX-License-Identifier: Apache-2.0
#include "util/message_log_files.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <string_view>
#include <system_error>
#include <utility>

#include "util/directory_names.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr std::string_view kNameStart = "telvorad_";
constexpr std::string_view kNameEnd = "_messageLog.diag";

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

std::string dateText(std::optional<double> seconds) {
    return seconds ? messageLogDate(*seconds) : "(null)";
}

// Hints at the likely cause: a confined process has no access to a directory that replaced its log directory.
void explain(const MessageLog& log, std::error_code error) {
    if (error != std::errc::permission_denied) return;
    TELVORA_LOG(
        kLogWarning,
        "writeToLogFile: %s can't be used; if it was removed or made anew since the daemon started, the daemon has to be restarted",
        log.directory.c_str());
}

// The log files in the directory, which is created if it is missing.
std::vector<LogFile> listOrCreate(const MessageLog& log) {
    std::error_code error;
    std::vector<LogFile> files = listLogFiles(log, error);
    if (error == std::errc::no_such_file_or_directory) {
        createLogDirectory(log);
    } else if (error) {
        TELVORA_LOG(kLogError, "writeToLogFile: Error reading from log directory: %s",
                    error.message().c_str());
        explain(log, error);
    } else {
        return files;
    }
    return {};
}

}  // namespace

std::optional<double> messageLogBirthTime(const std::filesystem::path& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &status) == 0 &&
        (status.stx_mask & STATX_BTIME) != 0) {
        return static_cast<double>(status.stx_btime.tv_sec) + status.stx_btime.tv_nsec / 1e9;
    }
    return timeInFileName(path);
}

std::string messageLogDate(double seconds) {
    const auto whole = static_cast<time_t>(std::floor(seconds));
    struct tm parts {};
    char text[64];
    if (gmtime_r(&whole, &parts) == nullptr) return "(null)";
    return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts)};
}

void deleteLogFile(const LogFile& file) {
    unlink(file.path.c_str());  // on failure the next call finds the file again
    TELVORA_LOG(kLogInfo, "writeToLogFile: Deleted expired telvorad log file %s (%s)", file.path.c_str(),
                dateText(file.created).c_str());
}

void createLogDirectory(const MessageLog& log) {
    TELVORA_LOG(kLogInfo, "writeToLogFile: Creating telvorad log directory at %s", log.directory.c_str());
    std::error_code error;  // creating the file fails, too
    std::filesystem::create_directories(log.directory, error);
    explain(log, error);
}

std::vector<LogFile> listLogFiles(const MessageLog& log, std::error_code& error) {
    std::vector<LogFile> files;
    const auto names = namesIn(log.directory);
    error = names ? std::error_code() : std::error_code(names.error(), std::generic_category());
    if (error) return files;
    for (const std::string& name : *names) {
        // Only entries with the name of a log file cost a look at the file: others may be many.
        if (!middleOfLogFileName(name)) continue;
        const std::filesystem::path path = log.directory / name;
        std::error_code gone;  // counts as no regular file
        const std::filesystem::file_type type = std::filesystem::symlink_status(path, gone).type();
        if (type != std::filesystem::file_type::directory)
            files.push_back({path, log.creationDate(path), type == std::filesystem::file_type::regular});
    }
    return files;
}

std::optional<LogFile> keepNewestLogFile(const MessageLog& log, double now) {
    std::optional<LogFile> newest;
    for (LogFile& file : listOrCreate(log)) {
        const bool expired = file.created && now - *file.created > kMessageLogExpiryAge;
        // An unknown date is older than all others.
        if (file.regular && !expired && (!newest || file.created > newest->created)) {
            if (newest) deleteLogFile(*newest);
            newest = std::move(file);
        } else {
            deleteLogFile(file);
        }
    }
    return newest;
}

std::optional<LogFile> createLogFile(const MessageLog& log, double now) {
    LogFile file{log.directory / (std::string(kNameStart) + std::to_string(static_cast<int32_t>(now)) +
                                  std::string(kNameEnd)),
                 std::nullopt};
    const UniqueFd fd(open(file.path.c_str(), O_WRONLY | O_CREAT | kMessageLogFlags, 0640));
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

}  // namespace telvora
