// SPDX-License-Identifier: Apache-2.0
#include "sandbox/sandbox_profile.h"

#include <array>

namespace telvora {

namespace {

constexpr const char* kReadable[] = {
    // shared objects and their data: plug-ins, name service modules, character conversion, OpenSSL's modules
    "/usr/lib", "/lib", "/usr/lib64", "/lib64", "/usr/lib32", "/lib32", "/usr/local/lib",
    // the certificate store, but not /etc/ssl/private
    "/etc/ssl/certs", "/etc/ssl/openssl.cnf", "/usr/share/ca-certificates",
    "/usr/local/share/ca-certificates", "/etc/pki/tls/certs", "/etc/pki/tls/cert.pem",
    "/etc/pki/ca-trust/extracted", "/etc/ca-certificates/extracted",
    // name resolution, as network managers write it
    "/run/systemd/resolve", "/run/NetworkManager", "/run/resolvconf", "/run/connman",
    // time zones and locales
    "/usr/share/zoneinfo", "/usr/share/locale",
    // device properties
    "/usr/lib/os-release", "/proc", "/sys/class/dmi", "/sys/devices/virtual/dmi", "/sys/firmware/devicetree",
    "/sys/devices/system/cpu", "/dev/urandom", "/dev/random"};

// Rules for single files do not apply to new files that a package or a network manager puts in their place: a
// daemon that runs for long could then no longer resolve names. File modes protect secrets from the daemon's
// user, so it may read all that other users may read there.
constexpr const char* kReadableAsUser[] = {"/etc"};

// Root owns all files, so it gets only the files that it needs.
constexpr const char* kReadableAsRoot[] = {
    "/etc/resolv.conf", "/etc/hosts",     "/etc/host.conf",   "/etc/nsswitch.conf", "/etc/gai.conf",
    "/etc/services",    "/etc/protocols", "/etc/networks",    "/etc/passwd",        "/etc/group",
    "/etc/ld.so.cache", "/etc/localtime", "/etc/locale.conf", "/etc/locale.alias",  "/etc/os-release",
    "/etc/machine-id",  "/etc/hostname"};

constexpr const char* kWritable[] = {"/dev/null"};

constexpr const char* kSystemCalls[] = {
    // memory
    "brk", "madvise", "mremap", "munmap", "memfd_create",
    // threads and signals
    "exit", "exit_group", "futex", "futex_time64", "futex_waitv", "getcpu", "get_robust_list", "gettid",
    "membarrier", "restart_syscall", "rseq", "rt_sigaction", "rt_sigpending", "rt_sigprocmask",
    "rt_sigreturn", "rt_sigsuspend", "rt_sigtimedwait", "rt_sigtimedwait_time64", "sched_getaffinity",
    "sched_yield", "set_robust_list", "set_tid_address", "sigaltstack", "sigreturn",
    // time
    "clock_getres", "clock_getres_time64", "clock_gettime", "clock_gettime64", "clock_nanosleep",
    "clock_nanosleep_time64", "gettimeofday", "nanosleep", "time", "timerfd_create", "timerfd_gettime",
    "timerfd_gettime64", "timerfd_settime", "timerfd_settime64",
    // descriptors and waiting
    "_newselect", "close", "close_range", "dup", "dup2", "dup3", "epoll_create", "epoll_create1", "epoll_ctl",
    "epoll_pwait", "epoll_pwait2", "epoll_wait", "eventfd", "eventfd2", "pipe", "pipe2", "poll", "ppoll",
    "ppoll_time64", "pselect6", "pselect6_time64", "select", "signalfd4",
    // files; Landlock checks the paths
    "_llseek", "access", "copy_file_range", "faccessat", "faccessat2", "fadvise64", "fadvise64_64",
    "fallocate", "fdatasync", "flock", "fstat", "fstat64", "fstatat64", "fstatfs", "fstatfs64", "fsync",
    "ftruncate", "ftruncate64", "getcwd", "getdents", "getdents64", "lseek", "lstat", "lstat64", "mkdir",
    "mkdirat", "newfstatat", "pread64", "preadv", "preadv2", "pwrite64", "pwritev", "pwritev2", "read",
    "readlink", "readlinkat", "readv", "rename", "renameat", "renameat2", "rmdir", "sendfile", "sendfile64",
    "stat", "stat64", "statfs", "statfs64", "statx", "umask", "unlink", "unlinkat", "write", "writev",
    // sockets of the permitted kinds
    "accept", "accept4", "connect", "getpeername", "getsockname", "getsockopt", "recv", "recvfrom",
    "recvmmsg", "recvmmsg_time64", "recvmsg", "send", "sendmmsg", "sendmsg", "sendto", "setsockopt",
    "shutdown",
    // information about the process and the machine
    "capget", "getegid", "getegid32", "geteuid", "geteuid32", "getgid", "getgid32", "getgroups",
    "getgroups32", "getpid", "getppid", "getpriority", "getrandom", "getresgid", "getresgid32", "getresuid",
    "getresuid32", "getrlimit", "getrusage", "getsid", "getuid", "getuid32", "sysinfo", "ugetrlimit",
    "uname"};

// Needed to open the listening sockets. Without bind and listen no port is available, even where the kernel's
// Landlock does not restrict ports; getaddrinfo(3) works without the addresses that it would read from a
// bound netlink socket. Landlock does not restrict file modes.
constexpr const char* kSystemCallsAtStart[] = {"bind", "chmod", "fchmodat", "listen", "seccomp"};

constexpr std::array kProfiles = {SandboxProfile{"com.zandor.telvorad", kReadable, kReadableAsRoot,
                                                 kReadableAsUser, kWritable, kSystemCalls,
                                                 kSystemCallsAtStart}};

}  // namespace

const SandboxProfile* findSandboxProfile(std::string_view name) {
    for (const SandboxProfile& profile : kProfiles) {
        if (profile.name == name) return &profile;
    }
    return nullptr;
}

}  // namespace telvora
