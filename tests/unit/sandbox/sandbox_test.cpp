// SPDX-License-Identifier: Apache-2.0
//
// Children enter the sandbox and try to leave it. The integration test CannotLeaveTheSandbox covers the
// attempts of an adaptor in the real daemon; these tests cover the rest: other files, other processes, and
// some system calls.
#include "sandbox/sandbox.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <latch>
#include <thread>

#include "tests/support/forked_child.h"
#include "tests/support/temporary_directory.h"
#include "util/unique_fd.h"

namespace telvora {
namespace {

using test::ChildReport;
using test::inForkedChild;

constexpr char kProfile[] = "com.zandor.telvorad";
constexpr uid_t kNobody = 65534;

#ifdef TELVORA_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Runs `body` in a confined child of each user that this process can be. Expects no failure there. `root` has
// the child's directories and a file of the configuration.
using Body =
    std::function<void(const ChildReport& report, const SandboxStatus& status, const std::string& root)>;
void confined(const Body& body) {
    for (const uid_t user : getuid() == 0 ? std::vector<uid_t>{0, kNobody} : std::vector{getuid()}) {
        const test::TemporaryDirectory directory;
        const std::string root = directory.path().string() + "/";
        directory.write("etc/device.plist", "configuration");
        create_directory(directory.path() / "state");  // the only one of its own that is there already
        const std::string wrong = inForkedChild([&](const ChildReport& report) {
            for (const char* owned : {"", "state"})
                report.expect(chown((root + owned).c_str(), user, user) == 0, "chown");
            if (user != getuid())
                report.expect(setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 &&
                                  setresuid(user, user, user) == 0,
                              "another user");
            const auto status = enterSandbox(
                kProfile, SandboxPaths::fromDirectories({root + "run", root + "state", root + "etc",
                                                         root + "logs", root + "framework"}));
            if (!status) return report.wrong(status.error());
            if (const auto tightened = tightenSandbox(kProfile); !tightened)
                return report.wrong(tightened.error());
            body(report, *status, root);
        });
        EXPECT_EQ(wrong, "") << user;
    }
}

TEST(Sandbox, LeavesNoWayIntoTheKernelOrTheNetwork) {
    const std::vector<long> calls{
        SYS_umount2,  SYS_setns,       SYS_keyctl,    SYS_add_key,     SYS_process_vm_writev,
        SYS_chroot,   SYS_pivot_root,  SYS_reboot,    SYS_setgid,      SYS_perf_event_open,
        SYS_capset,   SYS_sethostname, SYS_fchownat,  SYS_seccomp,     SYS_landlock_restrict_self,
        SYS_fchmodat, SYS_fchmod,      SYS_utimensat, SYS_userfaultfd, SYS_setpriority};
    constexpr int kMptcp = 262;
    static constexpr int kSockets[][3] = {
        {AF_INET6, SOCK_RAW, IPPROTO_TCP}, {AF_INET, SOCK_DGRAM, IPPROTO_ICMP},
        {AF_INET, SOCK_STREAM, kMptcp},    {AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT},
        {AF_ALG, SOCK_SEQPACKET, 0},       {AF_VSOCK, SOCK_STREAM, 0}};
    confined([&](const ChildReport& report, const SandboxStatus&, const std::string& root) {
        for (const long call : calls)
            report.expectErrno(syscall(call, 0, 0, 0, 0, 0, 0), EPERM, "call " + std::to_string(call));
        report.expectErrno(syscall(SYS_clone3, nullptr, 0), ENOSYS, "clone3");
        report.expectErrno(mkfifo((root + "state/fifo").c_str(), 0600), EPERM, "mkfifo");
        report.expectErrno(ioctl(STDIN_FILENO, TIOCSTI, "x"), EPERM, "TIOCSTI");
        for (const auto& [family, type, protocol] : kSockets)
            report.expectErrno(socket(family, type, protocol), EPERM, "socket of " + std::to_string(family));
        if (kSanitized) return;
        report.expectErrno(prctl(PR_SET_DUMPABLE, 1UL), EPERM, "PR_SET_DUMPABLE");
        const auto map = [](int protection, int flags) {
            return mmap(nullptr, 4096, protection, flags | MAP_PRIVATE, -1, 0) == MAP_FAILED ? -1 : 0;
        };
        report.expectErrno(map(PROT_READ | PROT_EXEC, MAP_ANONYMOUS), EPERM, "executable memory");
        report.expectErrno(map(PROT_WRITE | PROT_EXEC, 0), EPERM, "writable executable file");
        void* memory = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        report.expectErrno(mprotect(memory, 4096, PROT_READ | PROT_EXEC), EPERM, "mprotect");
    });
}

// The tests of the whole daemon show that its work is permitted; this test covers the rest.
TEST(Sandbox, SaysWhatIsInForceAndLeavesWhatTheDaemonMayNeed) {
    confined([](const ChildReport& report, const SandboxStatus& status, const std::string& root) {
        report.expect(test::readFile(root + "etc/device.plist") == "configuration", "configuration");
        for (const char* directory : {"state", "logs", "run"})
            report.expectErrno(mkdir((root + directory + "/made").c_str(), 0700), 0, "mkdir");
        for (const char* file : {"/etc/passwd", "/etc/group", "/etc/machine-id", "/proc/self/cgroup",
                                 "/etc/ssl/certs/ca-certificates.crt", "/dev/urandom", "/dev/null"})
            report.expect(access(file, F_OK) != 0 || UniqueFd(open(file, O_RDONLY)).get() >= 0, file);
        std::thread([] {}).join();
        report.expect(dlopen("libanl.so.1", RTLD_NOW) != nullptr, "dlopen");
        addrinfo* found = nullptr;
        report.expect(getaddrinfo("localhost", "443", nullptr, &found) == 0, "getaddrinfo");
        freeaddrinfo(found);

        const std::string self = test::readFile("/proc/self/status"), none = ":\t0000000000000000\n";
        const auto has = [&self](const std::string& line) { return self.find(line) != std::string::npos; };
        report.expect(status.profile == kProfile && status.landlockAbi >= 1 && status.files, "Landlock");
        report.expect(status.systemCallFilter && has("\nSeccomp:\t2\n"), "seccomp");
        report.expect(status.noNewPrivileges && has("\nNoNewPrivs:\t1\n"), "no_new_privs");
        for (const std::string set : {"CapInh", "CapPrm", "CapEff", "CapAmb"})
            report.expect(status.noCapabilities && has(set + none), set);
        report.expect(status.emptyBoundingSet == has("CapBnd" + none), "bounding set");
        report.expect(status.notDumpable == (prctl(PR_GET_DUMPABLE) == 0), "dumpable");
        report.expect(status.notDumpable || kSanitized, "dumpable in this build");
        report.expect(status.description().starts_with("com.zandor.telvorad (Landlock ABI "), "text");
    });
}

TEST(Sandbox, RefusesWhatItCannotConfine) {
    const auto errorOf = [](std::string_view profile) {
        const auto status = enterSandbox(profile, {});
        return status ? "entered" : status.error();
    };
    EXPECT_EQ(errorOf("com.example.other"), "no profile named \"com.example.other\"");
    if (kSanitized) return;
    EXPECT_EQ(inForkedChild([&](const ChildReport& report) {
                  std::latch release(1);
                  std::thread other([&] { release.wait(); });
                  const std::string error = errorOf(kProfile);
                  report.expect(error == "the process has more than one thread", error);
                  release.count_down();
                  other.join();
              }),
              "");
}

}  // namespace
}  // namespace telvora
