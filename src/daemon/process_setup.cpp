// SPDX-License-Identifier: Apache-2.0
#include "daemon/process_setup.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "util/error_text.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr int kNice = 5;
// ioprio_set(2). The kernel's <linux/ioprio.h> is not C++ in every version: a parameter's name is `class`.
constexpr int kIoPriorityWhoProcess = 1;
constexpr int kIoPriorityClassBestEffort = 2;
constexpr int kIoPriorityClassShift = 13;
constexpr int kIoPriorityLevel = 6;  // 0 to 7, 7 the lowest
constexpr int kLargeBuffer = 256 << 10;
constexpr unsigned long kTimerSlackNanoseconds = 50'000'000;

void report(const char* setting, long result) {
    if (result == 0) return;
    TELVORA_LOG(kLogDebug, "setUtilityQualityOfService: can't set the %s: %s", setting,
                errorText(errno).c_str());
}

}  // namespace

void setUtilityQualityOfService() {
    // The daemon may have been started with a lower priority; most users may not raise it again.
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, 0);
    if (errno != 0 || nice < kNice) report("nice value", setpriority(PRIO_PROCESS, 0, kNice));
    constexpr long kIoPriority = kIoPriorityClassBestEffort << kIoPriorityClassShift | kIoPriorityLevel;
    if (syscall(SYS_ioprio_get, kIoPriorityWhoProcess, 0) != kIoPriority)
        report("I/O priority", syscall(SYS_ioprio_set, kIoPriorityWhoProcess, 0, kIoPriority));
    report("timer slack", prctl(PR_SET_TIMERSLACK, kTimerSlackNanoseconds, 0UL, 0UL, 0UL));
}

void avoidHugePages() {
    if (prctl(PR_SET_THP_DISABLE, 1UL, 0UL, 0UL, 0UL) == 0) return;
    TELVORA_LOG(kLogDebug, "avoidHugePages: can't set it: %s", errorText(errno).c_str());
}

void leaveGnuTlsUnused() {
    setenv("GNUTLS_NO_IMPLICIT_INIT", "1", 0);
}

void returnLargeBuffers() {
    mallopt(M_MMAP_THRESHOLD, kLargeBuffer);
}

void releaseFreeMemory() {
    malloc_trim(0);
}

void notifyServiceManager(const char* state) {
    const char* const path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr) return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = std::min(std::strlen(path), sizeof address.sun_path);
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') address.sun_path[0] = '\0';  // abstract, unix(7)
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (sendto(socket.get(), state, std::strlen(state), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        TELVORA_LOG(kLogWarning, "main: can't tell the service manager: %s", errorText(errno).c_str());
    }
}

}  // namespace telvora
