// SPDX-License-Identifier: Apache-2.0
#include "platform/system_log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "platform/log_writer.h"
#include "util/log.h"

namespace telvora {

namespace {

// Never destroyed: threads that outlive main may still log.
LogWriter* writer = nullptr;

// Whether the service manager collects standard error: systemd.exec(5), JOURNAL_STREAM.
bool isCollected() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
    return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// A pipe or terminal gets a description of its own, which does not wait. That of standard error is shared
// with other processes, and must stay as it is.
LogWriter::Target standardError() {
    LogWriter::Target target;
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) == 0) {
        target.isSocket = S_ISSOCK(status.st_mode);
        target.mayWait = S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode);
    }
    if (target.mayWait) {
        target.fd.reset(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        target.mayWait = !target.fd;
    }
    if (!target.fd) target.fd.reset(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    return target;
}

std::string standardErrorRecord(int level, std::string_view line) {
    std::string text("<");
    text.append(std::to_string(level)).append(">").append(line);
    if (!text.ends_with('\n')) text.push_back('\n');
    return text;
}

// Without a descriptor if no system log listens.
LogWriter::Target systemLog() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fd.reset();
    return {.fd = std::move(fd), .isSocket = true, .isDatagram = true};
}

// The form of syslog(3): priority, local time, name and process.
std::string systemLogRecord(const std::string& programName, int level, std::string_view line) {
    const time_t now = std::time(nullptr);
    struct tm parts {};
    char date[32] = "";
    if (localtime_r(&now, &parts) != nullptr) std::strftime(date, sizeof date, "%b %e %T ", &parts);
    std::string text = "<" + std::to_string(LOG_DAEMON | level) + ">" + date + programName + "[" +
                       std::to_string(getpid()) + "]: ";
    return text.append(line);
}

}  // namespace

void startLogging(const std::string& programName) {
    // Opened now, while the process can still reach /dev/log.
    LogWriter::Target target;
    if (!isCollected() && isatty(STDERR_FILENO) != 1) target = systemLog();
    if (target.fd) {
        writer = new LogWriter(
            std::move(target),
            [programName](int level, std::string_view line) {
                return systemLogRecord(programName, level, line);
            },
            systemLog);
    } else {
        writer = new LogWriter(standardError(), standardErrorRecord);
    }
    setLogSink([](int level, std::string_view line) { writer->write(level, line); });
}

void allowLogThread() {
    if (writer != nullptr) writer->allowThread();
}

void stopLogging() {
    setLogSink(nullptr);
    if (writer != nullptr) writer->stop();
}

}  // namespace telvora
