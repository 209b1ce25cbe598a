// SPDX-License-Identifier: Apache-2.0
//
// The process towards the kernel and the service manager.
#pragma once

namespace telvora {

// Gives the calling thread, and every thread that it starts from now on, the service of a background utility:
// nice 5 (setpriority(2)), best-effort I/O priority 6 (ioprio_set(2)) and a timer slack of 50 ms (prctl(2)).
// So main calls it first. A setting that the kernel refuses stays as it is and is logged at level 7.
void setUtilityQualityOfService();

// Keeps the kernel from backing the heap with huge pages (PR_SET_THP_DISABLE, prctl(2)): where that is its
// default, a few hundred kilobytes of each thread's arena become megabytes of resident memory.
void avoidHugePages();

// Gives each buffer of 256 KiB and more back to the system when it is freed (mallopt(3)), and the free end of
// a thread's heap beyond 128 KiB. Otherwise the allocator raises both limits to the size of the largest
// buffer so far: after messages of 16 MB, each of several heaps keeps up to 64 MB that malloc_trim(3) does
// not reach.
void returnLargeBuffers();

// Keeps GnuTLS from setting itself up when it is loaded (GNUTLS_NO_IMPLICIT_INIT): on some systems libcurl
// brings it for protocols that the daemon does not use. Saves 0.6 MB. Before there are threads.
void leaveGnuTlsUnused();

// Gives the free pages of the heap back to the system.
void releaseFreeMemory();

// Notifies the service manager of the daemon's state: "READY=1", "STOPPING=1", ... (sd_notify(3)). No effect
// in a process that was not started by a service manager. Callable from any thread.
void notifyServiceManager(const char* state);

}  // namespace telvora
