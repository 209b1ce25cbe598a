// SPDX-License-Identifier: Apache-2.0
//
// What the kernel says of a process: proc(5).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

namespace telvora::bench {

// User and system time of all threads so far, in seconds; the kernel counts in hundredths.
double cpuSeconds(pid_t pid);

struct Memory {
    int64_t rssKiB = 0;      // resident now
    int64_t peakRssKiB = 0;  // the most that was ever resident
    int64_t pssKiB = 0;      // resident now, with each shared page divided among those who share it
};
Memory memoryOf(pid_t pid);

// How often each thread that there is now has gone to sleep and was woken.
using Wakeups = std::map<std::string, int64_t>;
Wakeups wakeupsOf(pid_t pid);
// How often the threads of `now` were woken since `before`, when some of them may not have been there. A
// thread that has ended meanwhile counts once.
int64_t wakeupsSince(const Wakeups& before, const Wakeups& now);

}  // namespace telvora::bench
