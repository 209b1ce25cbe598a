// SPDX-License-Identifier: Apache-2.0
//
// Children enter the sandbox and try to leave it.
#include "platform/sandbox.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <csignal>
#include <cstddef>
#include <latch>
#include <set>
#include <thread>

#include "telvora-lab/temporary_directory.h"
#include "tests/support/forked_child.h"
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

// A socket of this family on an address that the kernel chooses, and the address: for Unix sockets an
// abstract one.
struct Served {
    Served(sa_family_t family, int type) : socket(::socket(family, type | SOCK_CLOEXEC, 0)) {
        auto* internet = reinterpret_cast<sockaddr_in*>(&storage);
        storage.ss_family = family;
        if (family == AF_INET) internet->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = family == AF_INET ? sizeof *internet : sizeof family;
        EXPECT_EQ(bind(socket.get(), address(), length), 0);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(socket.get(), 1), 0);
        }
        length = sizeof storage;
        EXPECT_EQ(getsockname(socket.get(), address(), &length), 0);
    }
    sockaddr* address() { return reinterpret_cast<sockaddr*>(&storage); }

    UniqueFd socket;
    sockaddr_storage storage{};
    socklen_t length;
};

// Everything that stands outside before a child is confined, and the child's own directories.
class SandboxTest : public testing::TestWithParam<uid_t> {
  protected:
    SandboxTest() {
        root_.write("etc/device.plist", "configuration");
        root_.write("elsewhere/secret", "secret");
        root_.write("state/old", "old");  // only the state directory is there already
        if (getuid() != 0) return;
        for (const char* owned : {".", "state", "state/old"})
            EXPECT_EQ(chown(path(owned).c_str(), GetParam(), GetParam()), 0);
    }
    void SetUp() override {
        if (GetParam() != getuid() && getuid() != 0) GTEST_SKIP() << "needs to run as root";
    }
    std::string path(const char* relative) const { return root_.path() / relative; }

    // Runs `body` in a confined child of the parameter's user, which must find nothing wrong.
    void confined(const std::function<void(const ChildReport&, const SandboxStatus&)>& body) {
        EXPECT_EQ(inForkedChild([&](const ChildReport& report) {
                      const uid_t user = GetParam();
                      if (user != getuid()) {
                          report.expect(setgroups(0, nullptr) == 0, "setgroups");
                          report.expect(setresgid(user, user, user) == 0, "setresgid");
                          report.expect(setresuid(user, user, user) == 0, "setresuid");
                      }
                      const auto status = enterSandbox(
                          kProfile, SandboxPaths::fromDirectories({path("run"), path("state"), path("etc"),
                                                                   path("logs"), path("framework")}));
                      if (!status) return report.wrong(status.error());
                      if (const auto tightened = tightenSandbox(kProfile); !tightened)
                          return report.wrong(tightened.error());
                      body(report, *status);
                  }),
                  "");
    }

    lab::TemporaryDirectory root_;
};

INSTANTIATE_TEST_SUITE_P(Users, SandboxTest, testing::ValuesIn(std::set{getuid(), kNobody}),
                         [](const auto& test) { return test.param == getuid() ? "asStarted" : "nobody"; });

TEST_P(SandboxTest, LeavesNoWayToOtherFiles) {
    const std::string parentMemory = "/proc/" + std::to_string(getpid()) + "/mem";
    const std::pair<int, std::vector<std::string>> refused[] = {
        {O_RDONLY, {"/etc/shadow", "/usr/bin/env", "/dev/zero", parentMemory, path("elsewhere/secret")}},
        {O_RDONLY | O_DIRECTORY, {path("elsewhere")}},
        {O_RDONLY | O_TRUNC, {path("etc/device.plist")}},
        {O_WRONLY, {path("elsewhere/secret"), path("etc/device.plist")}},
        {O_WRONLY | O_CREAT,
         {"/tmp/telvora-leaves-the-sandbox", path("elsewhere/new"), path("new"), path("etc/new")}},
    };
    confined([&](const ChildReport& report, const SandboxStatus&) {
        for (const auto& [flags, files] : refused) {
            for (const std::string& file : files)
                report.expectErrno(open(file.c_str(), flags, 0600), EACCES, "open " + file);
        }
        const std::string old = path("state/old");
        report.expectErrno(rename(old.c_str(), path("elsewhere/old").c_str()), EACCES, "move out");
        report.expectErrno(unlink(path("elsewhere/secret").c_str()), EACCES, "unlink");
        report.expectErrno(symlink("/", path("state/link").c_str()), EPERM, "symlink");
        report.expectErrno(mkfifo(path("state/fifo").c_str(), 0600), EPERM, "mkfifo");
        report.expectErrno(link(old.c_str(), path("state/hard").c_str()), EPERM, "link");
    });
}

TEST_P(SandboxTest, LeavesNoWayToOtherProcesses) {
    Served abstract(AF_UNIX, SOCK_STREAM);
    confined([&](const ChildReport& report, const SandboxStatus& status) {
        for (const pid_t other : {getppid(), 0, -1})
            report.expectErrno(kill(other, 0), EPERM, "kill " + std::to_string(other));
        report.expectErrno(kill(getpid(), 0), 0, "kill self");
        report.expectErrno(syscall(SYS_tgkill, getppid(), getppid(), 0), EPERM, "tgkill parent");
        report.expectErrno(ptrace(PTRACE_ATTACH, getppid(), nullptr, nullptr), EPERM, "ptrace");
        char* const arguments[] = {nullptr};
        report.expectErrno(execve("/bin/true", arguments, arguments), EPERM, "execve");
        if (!status.abstractSockets) return;
        const UniqueFd client(socket(AF_UNIX, SOCK_STREAM, 0));
        report.expectErrno(connect(client.get(), abstract.address(), abstract.length), EPERM, "abstract");
    });
}

TEST_P(SandboxTest, LeavesNoWayIntoTheKernelOrTheNetwork) {
    const std::vector<long> groups[] = {
        {SYS_execveat, SYS_mount, SYS_umount2, SYS_unshare, SYS_setns},
        {SYS_init_module, SYS_finit_module, SYS_bpf, SYS_keyctl, SYS_add_key},
        {SYS_io_uring_setup, SYS_process_vm_writev, SYS_perf_event_open, SYS_userfaultfd},
        {SYS_chroot, SYS_pivot_root, SYS_reboot, SYS_setuid, SYS_setgid},
        {SYS_capset, SYS_sethostname, SYS_fchownat, SYS_pidfd_open, SYS_seccomp},
        {SYS_landlock_restrict_self, SYS_setpriority, SYS_listen, SYS_fchmodat, SYS_fchmod, SYS_utimensat}};
    constexpr int kMptcp = 262;
    static constexpr int kSockets[][3] = {
        {AF_INET, SOCK_RAW, IPPROTO_ICMP},   {AF_INET6, SOCK_RAW, IPPROTO_TCP},
        {AF_INET, SOCK_DGRAM, IPPROTO_ICMP}, {AF_INET, SOCK_STREAM, kMptcp},
        {AF_PACKET, SOCK_DGRAM, 0},          {AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT},
        {AF_ALG, SOCK_SEQPACKET, 0},         {AF_VSOCK, SOCK_STREAM, 0}};
    confined([&](const ChildReport& report, const SandboxStatus& status) {
        for (const auto& calls : groups) {
            for (const long call : calls)
                report.expectErrno(syscall(call, 0, 0, 0, 0, 0, 0), EPERM, "call " + std::to_string(call));
        }
        report.expectErrno(syscall(SYS_clone3, nullptr, 0), ENOSYS, "clone3");
        report.expectErrno(ioctl(STDIN_FILENO, TIOCSTI, "x"), EPERM, "TIOCSTI");
        report.expectErrno(fcntl(STDIN_FILENO, F_SETOWN, getppid()), EPERM, "F_SETOWN");
        for (const auto& [family, type, protocol] : kSockets)
            report.expectErrno(socket(family, type, protocol), EPERM, "socket of " + std::to_string(family));
        if (status.tcpBind) {
            const UniqueFd server(socket(AF_INET, SOCK_STREAM, 0));
            const sockaddr any{AF_INET, {}};
            report.expectErrno(bind(server.get(), &any, sizeof any), EACCES, "bind TCP");
        }
        if (kSanitized) return;
        report.expectErrno(fork(), EPERM, "fork");
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

// That the daemon does its work in there is what the tests of the whole daemon show; this is the rest.
TEST_P(SandboxTest, LeavesWhatTheDaemonMayNeedSomeDay) {
    Served tcp(AF_INET, SOCK_STREAM), udp(AF_INET, SOCK_DGRAM);
    confined([&](const ChildReport& report, const SandboxStatus&) {
        report.expect(lab::readFile(path("etc/device.plist")) == "configuration", "configuration");
        for (const char* directory : {"state", "logs", "run"}) {
            const std::string made = path(directory) + "/made", a = made + "/a", b = made + "/b";
            report.expectErrno(mkdir(made.c_str(), 0700), 0, "mkdir");
            const UniqueFd file(open(a.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600));
            report.expectErrno(write(file.get(), "text", 4), 0, "write");
            report.expectErrno(fsync(file.get()), 0, "fsync");
            report.expectErrno(ftruncate(file.get(), 0), 0, "ftruncate");
            report.expectErrno(rename(a.c_str(), b.c_str()), 0, "rename");
            report.expectErrno(unlink(b.c_str()), 0, "unlink");
            report.expectErrno(rmdir(made.c_str()), 0, "rmdir");
        }
        for (const char* file : {"/etc/passwd", "/etc/group", "/etc/machine-id", "/proc/self/cgroup",
                                 "/etc/ssl/certs/ca-certificates.crt", "/dev/urandom", "/dev/null"})
            report.expect(access(file, F_OK) != 0 || UniqueFd(open(file, O_RDONLY)).get() >= 0, file);
        std::thread([] {}).join();
        report.expect(dlopen("libanl.so.1", RTLD_NOW) != nullptr, "dlopen");
        addrinfo* found = nullptr;
        report.expect(getaddrinfo("localhost", "443", nullptr, &found) == 0, "getaddrinfo");
        freeaddrinfo(found);
        const UniqueFd stream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
        report.expectErrno(connect(stream.get(), tcp.address(), tcp.length), 0, "TCP");
        const UniqueFd datagram(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP));
        report.expectErrno(connect(datagram.get(), udp.address(), udp.length), 0, "UDP");
        report.expect(send(datagram.get(), "x", 1, 0) == 1, "send");
    });
}

TEST_P(SandboxTest, SaysWhatIsInForce) {
    confined([&](const ChildReport& report, const SandboxStatus& status) {
        const std::string self = lab::readFile("/proc/self/status");
        const auto has = [&](const std::string& line) { return self.find(line) != std::string::npos; };
        const std::string none = ":\t0000000000000000\n";
        report.expect(status.profile == kProfile && status.landlockAbi >= 1 && status.files, "Landlock");
        report.expect(status.systemCallFilter && has("\nSeccomp:\t2\n"), "seccomp");
        report.expect(status.noNewPrivileges && has("\nNoNewPrivs:\t1\n"), "no_new_privs");
        for (const std::string set : {"CapInh", "CapPrm", "CapEff", "CapAmb"})
            report.expect(has(set + none), set);
        report.expect(status.noCapabilities, "capabilities");
        report.expect(status.emptyBoundingSet == has("CapBnd" + none), "bounding set");
        report.expect(status.notDumpable == (prctl(PR_GET_DUMPABLE) == 0), "dumpable");
        report.expect(status.notDumpable || kSanitized, "dumpable in this build");
        report.expect(status.description().starts_with("com.zandor.telvorad (Landlock ABI "), "text");
    });
}

// Makes one system call fail as it does on a kernel that was built without it.
void hideSystemCall(long number) {
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{4, code};
    prctl(PR_SET_NO_NEW_PRIVS, 1UL, 0UL, 0UL, 0UL);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

TEST(Sandbox, RefusesWhatItCannotConfine) {
    const auto errorOf = [](std::string_view profile) {
        const auto status = enterSandbox(profile, {});
        return status ? "entered" : status.error();
    };
    EXPECT_EQ(errorOf("com.example.other"), "no profile named \"com.example.other\"");
    EXPECT_EQ(inForkedChild([&](const ChildReport& report) {
                  hideSystemCall(SYS_landlock_create_ruleset);
                  const std::string error = errorOf(kProfile);
                  report.expect(error == "the kernel has no Landlock: Function not implemented", error);
              }),
              "");
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
