// SPDX-License-Identifier: Apache-2.0
//
// Additional rights for builds with sanitizers: their runtimes map memory freely and run threads of their
// own, and the leak checker traces the process from a clone of it at the end. Release builds do not have
// these rights.
#pragma once

#include <array>

namespace telvora::sanitizer_needs {

#ifdef TELVORA_SANITIZED

inline constexpr bool kDumpable = true;             // the leak checker attaches to the process
inline constexpr bool kOtherThreadsAtEntry = true;  // ThreadSanitizer has a background thread
inline constexpr std::array kSystemCalls = {"clone",          "fork",
                                            "mmap",           "mmap2",
                                            "mprotect",       "personality",
                                            "prctl",          "prlimit64",
                                            "ptrace",         "process_vm_readv",
                                            "sched_getparam", "sched_getscheduler",
                                            "setrlimit",      "tkill",
                                            "wait4",          "waitid"};
inline constexpr std::array kReadWritePaths = {"/proc/self"};

#else

inline constexpr bool kDumpable = false;
inline constexpr bool kOtherThreadsAtEntry = false;
inline constexpr std::array<const char*, 0> kSystemCalls{};
inline constexpr std::array<const char*, 0> kReadWritePaths{};

#endif

}  // namespace telvora::sanitizer_needs
