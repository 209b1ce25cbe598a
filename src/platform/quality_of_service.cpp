// SPDX-License-Identifier: Apache-2.0
#include "platform/quality_of_service.h"

#include <linux/ioprio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "util/log.h"

namespace telvora {

namespace {

constexpr int kNice = 5;
constexpr int kIoPriorityLevel = 6;  // 0 to 7, 7 the lowest
constexpr unsigned long kTimerSlackNanoseconds = 50'000'000;

void report(const char* what, long result) {
    if (result == 0) return;
    TELVORA_LOG(kLogDebug, "setUtilityQualityOfService: can't set the %s: %s", what,
                std::generic_category().message(errno).c_str());
}

}  // namespace

void setUtilityQualityOfService() {
    // Whoever started the daemon may have put it lower still; raising it again is refused to most users.
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, 0);
    if (errno != 0 || nice < kNice) report("nice value", setpriority(PRIO_PROCESS, 0, kNice));
    const long ioPriority = IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, kIoPriorityLevel);
    if (syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, 0) != ioPriority)
        report("I/O priority", syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, ioPriority));
    report("timer slack", prctl(PR_SET_TIMERSLACK, kTimerSlackNanoseconds, 0UL, 0UL, 0UL));
}

}  // namespace telvora
