// SPDX-License-Identifier: Apache-2.0
#include "util/message_log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <map>
#include <numeric>
#include <string>
#include <system_error>
#include <utility>

#include "util/attempt.h"
#include "util/error_text.h"
#include "util/log.h"
#include "util/message_log_files.h"
#include "util/mutex.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr uint64_t kUsersPart = 8;  // the part of the log's bytes that one user may add in an hour
constexpr double kSecondsPerPart = 3600;
constexpr double kSecondsPerLine = 60;  // between two lines about one user's dropped records, or a failure
constexpr int64_t kSettledNanoseconds = 20'000'000;  // above the resolution of a file system's times

// One user's part of the log: bytes become free again at an even rate.
struct UsersPart {
    double freeBytes = 0;
    double since = 0;                    // seconds since 1970 of the number of free bytes
    double lastLine = -kSecondsPerLine;  // likewise, of the last line about dropped records
    uint64_t droppedRecords = 0;         // that no line has named yet
    uint64_t droppedBytes = 0;
};

// Identifies a file, and the changes of a directory.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    timespec modified{};

    // The status of a file, without following a link. An inode of 0 stands for no file.
    static Identity of(const std::filesystem::path& path) {
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0) return {};
        return {status.st_dev, status.st_ino, status.st_mtim};
    }
    bool isSameFile(const Identity& other) const {
        return inode != 0 && inode == other.inode && device == other.device;
    }
    bool isUnchanged(const Identity& other) const {
        return isSameFile(other) && modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
    // Whether a later change is sure to have another time.
    bool isSettled() const {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const int64_t age =
            (int64_t{now.tv_sec} - modified.tv_sec) * 1'000'000'000 + now.tv_nsec - modified.tv_nsec;
        return age > kSettledNanoseconds;
    }
};

}  // namespace

struct MessageLogState {
    Mutex lock{LockRank::messageLog};
    // The file that takes records, with the directory at the time of the listing that found it.
    std::optional<LogFile> file TELVORA_GUARDED_BY(lock);
    Identity fileIdentity TELVORA_GUARDED_BY(lock);
    Identity directory TELVORA_GUARDED_BY(lock);
    double lastFailure TELVORA_GUARDED_BY(lock) = -kSecondsPerLine;  // seconds since 1970 of the last line
    std::map<uid_t, UsersPart> parts TELVORA_GUARDED_BY(lock);
};

namespace {

// The file for a record. The directory is listed only if it has changed, or if the file is gone or expired.
std::optional<LogFile>& currentFile(const MessageLog& log, MessageLogState& state, double now)
    TELVORA_REQUIRES(state.lock) {
    const Identity directory = Identity::of(log.directory);
    const bool isCurrent = state.file && state.file->created &&
                           now - *state.file->created <= kMessageLogExpiryAge &&
                           state.fileIdentity.isSameFile(Identity::of(state.file->path)) &&
                           state.directory.isUnchanged(directory);
    if (isCurrent) return state.file;
    state.file = keepNewestLogFile(log, now);
    state.directory = state.file && directory.isSettled() ? directory : Identity();
    if (!state.file) state.file = createLogFile(log, now);
    if (state.file) state.fileIdentity = Identity::of(state.file->path);
    const auto isFullAgain = [now](const auto& entry) {
        return now - entry.second.since > kSecondsPerPart && entry.second.droppedRecords == 0;
    };
    std::erase_if(state.parts, isFullAgain);
    return state.file;
}

// Whether the user may add so many bytes now. Counts and logs the records that it may not add.
bool admits(MessageLogState& state, uint64_t maxBytes, uid_t user, size_t bytes, double now)
    TELVORA_REQUIRES(state.lock) {
    const uint64_t most = maxBytes / kUsersPart;
    const auto all = static_cast<double>(most);
    UsersPart& part = state.parts.try_emplace(user, UsersPart{all, now}).first->second;
    const double elapsed = std::max(0.0, now - part.since);
    part.freeBytes = std::min(all, part.freeBytes + elapsed * all / kSecondsPerPart);
    part.since = now;
    const bool admitted = static_cast<double>(bytes) <= part.freeBytes;
    if (admitted) {
        part.freeBytes -= static_cast<double>(bytes);
    } else {
        ++part.droppedRecords;
        part.droppedBytes += bytes;
    }
    if (part.droppedRecords > 0 && std::fabs(now - part.lastLine) >= kSecondsPerLine) {
        TELVORA_LOG(kLogWarning,
                    "writeToLogFile: Dropped %llu records with %llu bytes of user %u, of which the log takes "
                    "%llu bytes an hour",
                    static_cast<unsigned long long>(part.droppedRecords),
                    static_cast<unsigned long long>(part.droppedBytes), user,
                    static_cast<unsigned long long>(most));
        part.droppedRecords = part.droppedBytes = 0;
        part.lastLine = now;
    }
    return admitted;
}

// A record of that size. A blank goes before each line of the message that looks like the beginning of a
// record.
std::string recordOf(std::string_view date, std::initializer_list<std::string_view> message, size_t size) {
    constexpr std::string_view kBeginning = "\n(";
    std::string record;
    record.reserve(size);
    record.append("(").append(date).append(") ");
    const size_t start = record.size();
    for (const std::string_view part : message)
        record.append(part);
    for (size_t at = start; (at = record.find(kBeginning, at)) != std::string::npos;)
        record.insert(++at, 1, ' ');
    record += '\n';
    return record;
}

// Returns the size of the file with the record; std::nullopt, and a reason in errno, if it could not be
// written whole.
std::optional<uint64_t> append(const LogFile& file, std::string_view record) {
    const UniqueFd fd(open(file.path.c_str(), O_WRONLY | O_APPEND | kMessageLogFlags));
    if (!fd) return std::nullopt;
    ssize_t written = -1;
    do {
        written = write(fd.get(), record.data(), record.size());
    } while (written < 0 && errno == EINTR);
    if (written >= 0) errno = ENOSPC;  // the reason of a short count
    struct stat status {};
    if (written != static_cast<ssize_t>(record.size()) || fstat(fd.get(), &status) != 0) return std::nullopt;
    return static_cast<uint64_t>(status.st_size);
}

// Removes the oldest records: about half of the bytes that the log may have stay. The file stays the same
// one, so that readers that follow it see the change. False if the file can't be written.
bool removeOldest(const LogFile& file, uint64_t size, uint64_t maxBytes) {
    const UniqueFd fd(open(file.path.c_str(), O_RDWR | kMessageLogFlags));
    std::string kept(maxBytes / 2, '\0');
    const auto from = static_cast<off_t>(size - kept.size());
    if (!fd || pread(fd.get(), kept.data(), kept.size(), from) != static_cast<ssize_t>(kept.size()))
        return false;
    kept.erase(0, std::min(kept.find("\n("), kept.size() - 1) + 1);
    if (pwrite(fd.get(), kept.data(), kept.size(), 0) != static_cast<ssize_t>(kept.size()) ||
        ftruncate(fd.get(), static_cast<off_t>(kept.size())) != 0) {
        return false;
    }
    TELVORA_LOG(kLogInfo, "writeToLogFile: Removed the oldest %llu bytes of %s",
                static_cast<unsigned long long>(size - kept.size()), file.path.c_str());
    return true;
}

void warnOfFailure(MessageLogState& state, const LogFile& file, int error, double now)
    TELVORA_REQUIRES(state.lock) {
    if (std::fabs(now - state.lastFailure) < kSecondsPerLine) return;
    state.lastFailure = now;
    TELVORA_LOG(kLogWarning, "writeToLogFile: Could not write to %s: %s", file.path.c_str(),
                errorText(error).c_str());
}

void addRecord(const MessageLog& log, std::initializer_list<std::string_view> message,
               std::optional<uid_t> user) {
    const double now = TelvoradUtil::secondsFromTimeValue(log.clock());
    const std::string date = messageLogDate(now);
    const size_t size = std::accumulate(message.begin(), message.end(), date.size() + std::strlen("() \n"),
                                        [](size_t sum, std::string_view part) { return sum + part.size(); });
    MessageLogState& state = *log.state;
    const MutexLock lock(state.lock);
    if (user && !admits(state, log.maxBytes, *user, size, now)) return;
    std::optional<LogFile>& file = currentFile(log, state, now);
    if (!file) return;
    const std::optional<uint64_t> length = append(*file, recordOf(date, message, size));
    if (!length || (*length > log.maxBytes && !removeOldest(*file, *length, log.maxBytes))) {
        warnOfFailure(state, *file, errno, now);
        deleteLogFile(*std::exchange(file, std::nullopt));
        return;
    }
    TELVORA_LOG(kLogInfo, "writeToLogFile: Saved log message to %s", file->path.c_str());
}

}  // namespace

MessageLog::MessageLog(std::filesystem::path logDirectory)
    : directory(std::move(logDirectory)),
      creationDate(messageLogBirthTime),
      state(std::make_shared<MessageLogState>()) {}

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
    if (!std::filesystem::exists(log.directory, error) && !error) telvora::createLogDirectory(log);
}

// A record that there is no memory for is lost: it is for people, and the work of its caller goes on.
void TelvoradUtil::writeToLogFile(const telvora::MessageLog& log,
                                  std::initializer_list<std::string_view> message,
                                  std::optional<uid_t> user) {
    telvora::attempt("writeToLogFile", [&] { telvora::addRecord(log, message, user); });
}
