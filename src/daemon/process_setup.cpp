// SPDX-License-Identifier: Apache-2.0
#include "daemon/process_setup.h"

#include <linux/ioprio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>

#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr int kNice = 5;
constexpr int kIoPriorityLevel = 6;  // 0 to 7, 7 the lowest
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
    constexpr long kIoPriority = IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, kIoPriorityLevel);
    if (syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, 0) != kIoPriority)
        report("I/O priority", syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, kIoPriority));
    report("timer slack", prctl(PR_SET_TIMERSLACK, kTimerSlackNanoseconds, 0UL, 0UL, 0UL));
}

void notifyServiceManager(const char* state) {
    const int result = sd_notify(0, state);
    if (result < 0) {
        TELVORA_LOG(kLogWarning, "main: can't tell the service manager: %s", std::strerror(-result));
    }
}

}  // namespace telvora
