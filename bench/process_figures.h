// SPDX-License-Identifier: Apache-2.0
//
// Figures of a process from proc(5).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace telvora::bench {

// User and system time of all threads so far, in seconds, with the kernel's resolution of 10 ms.
double cpuSeconds(pid_t pid);

struct Memory {
    int64_t rssKiB = 0;      // resident now
    int64_t peakRssKiB = 0;  // the maximum of the resident size so far
    int64_t pssKiB = 0;      // resident now, with each shared page divided by the number of its users
};
Memory memoryOf(pid_t pid);

// The numbers of open descriptors and of threads.
size_t descriptorsOf(pid_t pid);
size_t threadsOf(pid_t pid);

// The count of voluntary context switches of each current thread.
using Wakeups = std::map<std::string, int64_t>;
Wakeups wakeupsOf(pid_t pid);
// The number of wake-ups in `now` since `before`. A thread that started meanwhile counts from 0; one that
// ended counts once.
int64_t wakeupsSince(const Wakeups& before, const Wakeups& now);

inline double millisecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace telvora::bench
