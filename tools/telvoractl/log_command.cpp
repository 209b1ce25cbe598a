// SPDX-License-Identifier: Apache-2.0
//
// Prints the last records of the daemon's message log, and new ones as they come. Only reads the daemon's
// files.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <utility>

#include "command.h"
#include "json.h"
#include "output.h"
#include "platform/directories.h"
#include "util/error_text.h"
#include "util/message_log.h"
#include "util/unique_fd.h"

namespace telvora::ctl {

namespace {

struct LogOptions {
    size_t count = 10;
    bool follow = false;
};

constexpr std::string_view kTimeShape = "(0000-00-00 00:00:00 +0000) ";

// Whether a record begins at this line. The text of a record may have several lines.
bool beginsRecord(std::string_view line) {
    if (line.size() < kTimeShape.size()) return false;
    return std::equal(kTimeShape.begin(), kTimeShape.end(), line.begin(),
                      [](char shape, char c) { return shape == '0' ? c >= '0' && c <= '9' : c == shape; });
}

void print(const std::string& record, bool json) {
    std::string line;
    if (!json) {
        line = forTerminal(record);
    } else {
        const bool timed = beginsRecord(record);
        Dictionary parts{{"text", timed ? record.substr(kTimeShape.size()) : record}};
        if (timed) parts.set("time", record.substr(1, kTimeShape.size() - 3));
        line = toJson(parts);
    }
    std::puts(line.c_str());
}

// Assembles records from the bytes of a file.
class Records {
  public:
    explicit Records(std::function<void(const std::string& record)> use) : use_(std::move(use)) {}

    void add(std::string_view bytes) {
        line_ += bytes;
        size_t begin = 0;
        for (size_t end = 0; (end = line_.find('\n', begin)) != std::string::npos; begin = end + 1)
            addLine(std::string_view(line_).substr(begin, end - begin));
        line_.erase(0, begin);
    }
    // The daemon appends a record with one write, so that the rest is a complete record.
    void end() {
        if (record_.empty()) return;
        use_(record_);
        last_ = std::exchange(record_, {});
    }
    // The part of a log that follows the last record of before. All of it if the record is not there any
    // more.
    std::string_view unseen(std::string_view log) const {
        const size_t seen = last_.empty() ? std::string_view::npos : log.rfind(last_ + "\n");
        return seen == std::string_view::npos ? log : log.substr(seen + last_.size() + 1);
    }

  private:
    void addLine(std::string_view line) {
        if (beginsRecord(line)) end();
        if (!record_.empty()) record_ += '\n';
        record_ += line;
    }

    const std::function<void(const std::string&)> use_;
    std::string line_;
    std::string record_;
    std::string last_;  // the last complete record
};

// The current file of the log, and the next one when there is one.
class Reader {
  public:
    explicit Reader(MessageLog log) : log_(std::move(log)) {}

    // Reads the bytes that were added since the last call.
    void read(Records& records) {
        readOn(records);
        const auto newest = newestLogFile(log_);
        if (!newest || newest == current_) return;
        current_ = *newest;
        file_.reset(open(current_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        readOn(records);
    }
    bool isOpen() const { return static_cast<bool>(file_); }

  private:
    void readOn(Records& records) const {
        struct stat status {};
        if (file_ && fstat(file_.get(), &status) == 0 && status.st_size < lseek(file_.get(), 0, SEEK_CUR)) {
            readAgain(records);
        }
        char buffer[65536];
        ssize_t count = 0;
        while (file_ && (count = ::read(file_.get(), buffer, sizeof buffer)) > 0)
            records.add({buffer, static_cast<size_t>(count)});
        records.end();
    }

    // The daemon has removed the oldest records from the file, so that the others have moved.
    void readAgain(Records& records) const {
        std::string content;
        char buffer[65536];
        lseek(file_.get(), 0, SEEK_SET);
        for (ssize_t count = 0; (count = ::read(file_.get(), buffer, sizeof buffer)) > 0;)
            content.append(buffer, static_cast<size_t>(count));
        records.add(records.unseen(content));
    }

    const MessageLog log_;
    std::filesystem::path current_;
    UniqueFd file_;
};

// Waits until the directory changes. False if the directory is gone.
bool waitForChange(int notifications) {
    alignas(inotify_event) char events[4096];
    const ssize_t count = read(notifications, events, sizeof events);
    if (count < 0) return errno == EINTR;
    for (ssize_t at = 0; at < count;) {
        const auto* event = reinterpret_cast<const inotify_event*>(events + at);
        if ((event->mask & IN_IGNORED) != 0) return false;
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return true;
}

int runLog(const LogOptions& options, const CommonOptions& common) {
    const MessageLog log(Directories::fromEnvironment().logs);
    const UniqueFd notifications(inotify_init1(IN_CLOEXEC));
    if (options.follow &&
        inotify_add_watch(notifications.get(), log.directory.c_str(),
                          IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_DELETE | IN_ONLYDIR) < 0) {
        return fail(kNotDone, errorText("can't watch " + log.directory.string(), errno));
    }
    Reader reader(log);
    std::deque<std::string> last;
    Records old([&](const std::string& record) {
        last.push_back(record);
        if (last.size() > options.count) last.pop_front();
    });
    reader.read(old);
    for (const std::string& record : last)
        print(record, common.json);
    std::fflush(stdout);
    if (!options.follow) {
        if (reader.isOpen()) return kDone;
        if (access(log.directory.c_str(), R_OK | X_OK) != 0)
            return fail(kNotDone, errorText("can't read " + log.directory.string(), errno));
        if (const auto newest = newestLogFile(log)) {
            return access(newest->c_str(), R_OK) == 0
                       ? kDone
                       : fail(kNotDone, errorText("can't read " + newest->string(), errno));
        }
        return fail(kNotDone, "there is no message log in " + log.directory.string() +
                                  ": it begins with the first message that is posted with consent");
    }
    Records fresh([&](const std::string& record) { print(record, common.json); });
    while (waitForChange(notifications.get())) {
        reader.read(fresh);
        std::fflush(stdout);
    }
    return fail(kNotDone, log.directory.string() + " is gone");
}

}  // namespace

Command addLogCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<LogOptions>();
    CLI::App* command = app.add_subcommand("log", "Show the local message log");
    command->add_option("-n,--records", options->count, "Number of last records")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    command->add_flag("-f,--follow", options->follow, "Also print new records");
    return {command, [options, &common] { return runLog(*options, common); }};
}

}  // namespace telvora::ctl
