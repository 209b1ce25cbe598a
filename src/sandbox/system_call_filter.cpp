// SPDX-License-Identifier: Apache-2.0
//
// The filter lists permitted calls. Other calls fail instead of ending the process, because libraries probe
// for system calls and cope without them. The filter sees arguments as the kernel received them, so it can
// check numbers, but not memory behind pointers: Landlock checks paths.
#include "sandbox/system_call_filter.h"

#include <fcntl.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <memory>
#include <vector>

#include "sandbox/refused_call.h"
#include "sandbox/sanitizer_needs.h"

namespace telvora {

namespace {

using Comparisons = std::vector<scmp_arg_cmp>;

scmp_arg_cmp equals(unsigned argument, uint64_t value) {
    return {argument, SCMP_CMP_EQ, value, 0};
}

// The bits of `mask` in the argument equal `bits`.
scmp_arg_cmp bitsAre(unsigned argument, uint64_t mask, uint64_t bits) {
    return {argument, SCMP_CMP_MASKED_EQ, mask, bits};
}

constexpr uint32_t kForbidden = SCMP_ACT_ERRNO(EPERM);

// Collects rules; remembers the first failure.
class Filter {
  public:
    // `others`: the action for calls without a rule.
    explicit Filter(uint32_t others) : context_(seccomp_init(others), &seccomp_release) {
        // Setting no_new_privs again would fail under the first filter.
        error_ = context_ ? seccomp_attr_set(context_.get(), SCMP_FLTATR_CTL_NNP, 0) : -ENOMEM;
        // Makes seccomp_load(3) return the kernel's error, for the log.
        if (error_ == 0) error_ = seccomp_attr_set(context_.get(), SCMP_FLTATR_API_SYSRAWRC, 1);
    }

    void allow(const char* name, const Comparisons& comparisons = {}) {
        add(SCMP_ACT_ALLOW, name, comparisons);
    }
    void forbid(const char* name) { add(kForbidden, name, {}); }
    void pretendMissing(const char* name) { add(SCMP_ACT_ERRNO(ENOSYS), name, {}); }

    tl::expected<void, std::string> load() {
        if (error_ == 0) error_ = seccomp_load(context_.get());
        if (error_ != 0) return tl::unexpected(refusedCall("seccomp", -error_));
        return {};
    }

  private:
    void add(uint32_t action, const char* name, const Comparisons& comparisons) {
        if (error_ != 0) return;
        const int number = seccomp_syscall_resolve_name(name);
        if (number == __NR_SCMP_ERROR) return;  // libseccomp is older than the call
        error_ = seccomp_rule_add_array(context_.get(), action, number,
                                        static_cast<unsigned>(comparisons.size()), comparisons.data());
    }

    std::unique_ptr<void, decltype(&seccomp_release)> context_;
    int error_ = 0;
};

// TCP and UDP by protocol number, which excludes raw sockets and other transports, such as those whose ports
// Landlock does not restrict.
void allowSockets(Filter& filter) {
    constexpr uint64_t kTypeMask = 0xf;  // the other bits are SOCK_CLOEXEC and SOCK_NONBLOCK
    for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET}) {
        const auto ofType = bitsAre(1, kTypeMask, static_cast<uint64_t>(type));
        filter.allow("socket", {equals(0, AF_UNIX), ofType});
        filter.allow("socketpair", {equals(0, AF_UNIX), ofType});
    }
    for (const uint64_t family : {AF_INET, AF_INET6}) {
        for (const uint64_t protocol : {0, int{IPPROTO_TCP}}) {
            filter.allow("socket",
                         {equals(0, family), bitsAre(1, kTypeMask, SOCK_STREAM), equals(2, protocol)});
        }
        for (const uint64_t protocol : {0, int{IPPROTO_UDP}}) {
            filter.allow("socket",
                         {equals(0, family), bitsAre(1, kTypeMask, SOCK_DGRAM), equals(2, protocol)});
        }
    }
    // The resolver orders its answers by the machine's own addresses, which it reads from a netlink socket of
    // type raw.
    for (const uint64_t type : {SOCK_RAW, SOCK_DGRAM}) {
        filter.allow("socket",
                     {equals(0, AF_NETLINK), bitsAre(1, kTypeMask, type), equals(2, NETLINK_ROUTE)});
    }
}

// For pthread_create(3) alone: the daemon never forks, and no thread gets namespaces of its own. clone3(2)
// hides its flags behind a pointer.
void allowThreads(Filter& filter) {
#if defined(__s390__)
    constexpr unsigned kFlags = 1;
#else
    constexpr unsigned kFlags = 0;
#endif
    constexpr uint64_t kNotForThreads = CLONE_NEWCGROUP | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWNS |
                                        CLONE_NEWPID | CLONE_NEWUSER | CLONE_NEWUTS | CLONE_PTRACE |
                                        CLONE_UNTRACED | CLONE_VFORK;
    filter.allow("clone", {bitsAre(kFlags, kNotForThreads | CLONE_THREAD, CLONE_THREAD)});
    filter.pretendMissing("clone3");
}

// Landlock restricts truncation only from ABI 3 on. Below that, opening a read-only file for reading with
// O_TRUNC could empty it. openat2(2) hides its flags behind a pointer.
void allowOpening(Filter& filter) {
    for (const uint64_t flags : {O_RDONLY, O_WRONLY, O_RDWR, O_WRONLY | O_TRUNC, O_RDWR | O_TRUNC}) {
        filter.allow("open", {bitsAre(1, O_ACCMODE | O_TRUNC, flags)});
        filter.allow("openat", {bitsAre(2, O_ACCMODE | O_TRUNC, flags)});
    }
    filter.pretendMissing("openat2");
}

void allowSignalsToSelf(Filter& filter) {
    const auto self = equals(0, static_cast<uint64_t>(getpid()));
    filter.allow("kill", {self});
    filter.allow("tgkill", {self});
}

// Executable memory can't be forbidden altogether: dlopen(3) maps the code of the adaptor plug-in, of name
// service modules and of OpenSSL's providers. It maps code from files and read-only, and makes no memory
// executable later (only text relocations and executable stacks do). So no code can be written to memory and
// then run.
void allowMemory(Filter& filter) {
    for (const char* map : {"mmap", "mmap2"}) {
        filter.allow(map, {bitsAre(2, PROT_EXEC, 0)});
        filter.allow(map, {bitsAre(2, PROT_EXEC | PROT_WRITE, PROT_EXEC), bitsAre(3, MAP_ANONYMOUS, 0)});
    }
    filter.allow("mprotect", {bitsAre(2, PROT_EXEC, 0)});
}

void allowRequests(Filter& filter) {
    // A terminal can be identified, but no input can be faked (TIOCSTI).
    for (const uint64_t request :
         {uint64_t{FIONBIO}, uint64_t{FIONREAD}, uint64_t{FIOCLEX}, uint64_t{FIONCLEX}, uint64_t{TCGETS},
          uint64_t{SIOCGIFINDEX}, uint64_t{SIOCGIFNAME}}) {
        filter.allow("ioctl", {equals(1, request)});
    }
    // Not F_SETOWN: the owner of a descriptor gets signals from it. SQLite locks its file.
    for (const char* call : {"fcntl", "fcntl64"}) {
        for (const uint64_t request : {F_DUPFD, F_DUPFD_CLOEXEC, F_GETFD, F_SETFD, F_GETFL, F_SETFL, F_SETLK,
                                       F_GETLK, F_ADD_SEALS, F_GET_SEALS})
            filter.allow(call, {equals(1, request)});
    }
    // A thread's name and the state of confinement. PR_SET_VMA only names memory, for debuggers.
    constexpr uint64_t kSetVma = 0x53564d41;
    for (const uint64_t request :
         {uint64_t{PR_SET_NAME}, uint64_t{PR_GET_NAME}, uint64_t{PR_GET_DUMPABLE},
          uint64_t{PR_GET_NO_NEW_PRIVS}, uint64_t{PR_GET_SECCOMP}, uint64_t{PR_CAPBSET_READ}, kSetVma}) {
        filter.allow("prctl", {equals(0, request)});
    }
    filter.allow("prlimit64", {equals(0, 0), equals(2, 0)});  // of this process, without new limits
}

}  // namespace

tl::expected<void, std::string> filterSystemCalls(std::span<const char* const> plain) {
    // Without seccomp(2), libseccomp uses prctl(2), which the first filter then denies to the second.
    uint32_t action = SECCOMP_RET_ERRNO;
    if (syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action) != 0)
        return tl::unexpected(refusedCall("seccomp", errno));
    Filter filter(kForbidden);
    for (const char* name : plain)
        filter.allow(name);
    allowOpening(filter);
    allowSockets(filter);
    allowSignalsToSelf(filter);
    allowThreads(filter);
    allowMemory(filter);
    allowRequests(filter);
    for (const char* name : sanitizer_needs::kSystemCalls)
        filter.allow(name);  // with any arguments
    return filter.load();
}

tl::expected<void, std::string> forbidSystemCalls(std::span<const char* const> names) {
    Filter filter(SCMP_ACT_ALLOW);
    for (const char* name : names)
        filter.forbid(name);
    return filter.load();
}

}  // namespace telvora
