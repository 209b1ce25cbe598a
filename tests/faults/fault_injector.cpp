// SPDX-License-Identifier: Apache-2.0
//
// A library to preload (ld.so(8), LD_PRELOAD): calls of the process fail as the fault page says. Without a
// page, all calls pass.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "tests/faults/fault_page.h"

using telvora::test::FaultPage;
using telvora::test::FaultyCall;

namespace {

FaultPage* page = nullptr;

// Before the process confines itself.
[[gnu::constructor]] void mapPage() {
    const char* const path = getenv(telvora::test::kFaultPageVariable);
    const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    void* const mapped =
        fd >= 0 ? mmap(nullptr, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    if (fd >= 0) close(fd);
    void* frame = nullptr;
    backtrace(&frame, 1);  // loads its library
    if (mapped != MAP_FAILED) page = static_cast<FaultPage*>(mapped);
}

// Libraries whose allocations do not fail. GMP has no way to report it, and ends the process. After thousands
// of failures within handshakes of OpenSSL, the heap was found damaged once, for an unknown reason.
constexpr const char* kExcepted[] = {"libgmp.so", "libcrypto.so", "libssl.so"};

// Puts the call's stack on the page. False if an excepted library makes the call.
bool recordFrames() {
    page->frames = {};
    void* addresses[FaultPage::kFrames];
    const int count = backtrace(addresses, FaultPage::kFrames);
    for (int i = 0; i < count; ++i) {
        Dl_info place{};
        if (dladdr(addresses[i], &place) == 0) continue;
        for (const char* const library : kExcepted)
            if (strstr(place.dli_fname, library) != nullptr) return false;
        FaultPage::Frame& frame = page->frames[i];
        const char* const slash = strrchr(place.dli_fname, '/');
        strncpy(frame.file, slash != nullptr ? slash + 1 : place.dli_fname, sizeof frame.file - 1);
        frame.offset =
            static_cast<uint64_t>(static_cast<char*>(addresses[i]) - static_cast<char*>(place.dli_fbase)) - 1;
    }
    return true;
}

// Sets errno if the call is to fail.
bool fails(FaultyCall call) {
    if (page == nullptr || page->call.load(std::memory_order_relaxed) != call) return false;
    if (page->before.fetch_sub(1) > 0 || page->fail <= 0) return false;
    if (!recordFrames() || page->fail.fetch_sub(1) <= 0) return false;
    ++page->failed;
    errno = page->error;
    return true;
}

bool allocationFails() {
    return fails(FaultyCall::allocation);
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define FAILS_AS(call, result, name, parameters, arguments)    \
    result name parameters {                                   \
        static auto* const real = next<decltype(name)>(#name); \
        return fails(FaultyCall::call) ? -1 : real arguments;  \
    }

extern "C" {

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t size) {
    return allocationFails() ? nullptr : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    return allocationFails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    return allocationFails() ? nullptr : __libc_realloc(block, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    return allocationFails() ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
    if (allocationFails()) return ENOMEM;
    *block = __libc_memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}

FAILS_AS(accept, int, accept4, (int fd, sockaddr* address, socklen_t* size, int flags),
         (fd, address, size, flags))
FAILS_AS(recvmsg, ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags))
FAILS_AS(sendmsg, ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags))
FAILS_AS(recv, ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags))
ssize_t send(int fd, const void* bytes, size_t size, int flags) {
    static auto* const real = next<decltype(send)>("send");
    // A byte wakes libcurl's thread: its socket is full only while the thread has been woken.
    const bool wakes = size == 1 && page != nullptr && page->error == EAGAIN;
    return !wakes && fails(FaultyCall::send) ? -1 : real(fd, bytes, size, flags);
}
FAILS_AS(send, ssize_t, sendto,
         (int fd, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t length),
         (fd, bytes, size, flags, to, length))
FAILS_AS(read, ssize_t, read, (int fd, void* bytes, size_t size), (fd, bytes, size))
ssize_t write(int fd, const void* bytes, size_t size) {
    static auto* const real = next<decltype(write)>("write");
    // A write to an eventfd, which wakes a thread, fails only when its counter is full.
    const bool wakes = size == sizeof(uint64_t);
    return !wakes && fails(FaultyCall::write) ? -1 : real(fd, bytes, size);
}
FAILS_AS(write, ssize_t, writev, (int fd, const iovec* parts, int count), (fd, parts, count))
FAILS_AS(status, int, stat, (const char* path, struct stat* status), (path, status))
FAILS_AS(status, int, lstat, (const char* path, struct stat* status), (path, status))
FAILS_AS(status, int, fstat, (int fd, struct stat* status), (fd, status))
FAILS_AS(socket, int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILS_AS(connect, int, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
FAILS_AS(epollWait, int, epoll_wait, (int fd, epoll_event* events, int most, int timeout),
         (fd, events, most, timeout))
FAILS_AS(poll, int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
FAILS_AS(socketOption, int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
         (fd, level, name, value, size))
FAILS_AS(socketOption, int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
         (fd, level, name, value, size))
FAILS_AS(socketName, int, getsockname, (int fd, sockaddr* address, socklen_t* size), (fd, address, size))

// A change of a descriptor that is there takes no memory.
int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
    static auto* const real = next<decltype(epoll_ctl)>("epoll_ctl");
    if (operation == EPOLL_CTL_ADD && fails(FaultyCall::epollAdd)) return -1;
    return real(epoll, operation, fd, event);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
    static auto* const real = next<decltype(pthread_create)>("pthread_create");
    return fails(FaultyCall::threadStart) ? page->error.load() : real(thread, attributes, start, argument);
}

#define FAILS_AS_OPEN(name, parameters, arguments)                                           \
    int name parameters {                                                                    \
        static auto* const real = next<decltype(name)>(#name);                               \
        va_list rest;                                                                        \
        va_start(rest, flags);                                                               \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0; \
        va_end(rest);                                                                        \
        return fails(FaultyCall::open) ? -1 : real arguments;                                \
    }
FAILS_AS_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
FAILS_AS_OPEN(openat, (int directory, const char* path, int flags, ...), (directory, path, flags, mode))
[[gnu::alias("open")]] int open64(const char* path, int flags, ...);
[[gnu::alias("fstat")]] int fstat64(int fd, struct stat64* status);

}  // extern "C"
