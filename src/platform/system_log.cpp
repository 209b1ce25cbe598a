// SPDX-License-Identifier: Apache-2.0
#include "platform/system_log.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

// openlog(3) keeps the pointer to it.
std::string programIdentity;

void writeToSystemLog(int level, std::string_view line) {
    syslog(level, "%.*s", static_cast<int>(line.size()), line.data());
}

void writeToStandardError(int level, std::string_view line) {
    std::string text("<");
    text.append(std::to_string(level)).append(">").append(line);
    if (!text.ends_with('\n')) text.push_back('\n');
    // A failure here cannot be reported.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

// Whether the service manager collects standard error: systemd.exec(5), JOURNAL_STREAM.
bool isCollected() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
    return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

bool systemLogListens() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return fd && (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
                  errno == EPROTOTYPE);  // a stream socket, which syslog(3) also tries
}

}  // namespace

void startLogging(const std::string& programName) {
    if (isCollected() || isatty(STDERR_FILENO) == 1 || !systemLogListens()) {
        setLogSink(writeToStandardError);
        return;
    }
    programIdentity = programName;
    // Opened now, while the process can still reach /dev/log.
    openlog(programIdentity.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
    setLogSink(writeToSystemLog);
}

void stopLogging() {
    setLogSink(nullptr);
    closelog();
}

}  // namespace telvora
