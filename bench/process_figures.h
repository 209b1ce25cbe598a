// SPDX-License-Identifier: Apache-2.0
//
// What the kernel says of a process: proc(5).
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace telvora::bench {

// User and system time of all threads so far, in seconds; the kernel counts in hundredths.
double cpuSeconds(pid_t pid);

struct Memory {
    int64_t rssKiB = 0;      // resident now
    int64_t peakRssKiB = 0;  // the most that was ever resident
    int64_t pssKiB = 0;      // resident now, with each shared page divided among those who share it
};
Memory memoryOf(pid_t pid);

// How often the threads that there are now have gone to sleep and were woken.
int64_t wakeups(pid_t pid);

}  // namespace telvora::bench
