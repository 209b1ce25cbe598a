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
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <asio/post.hpp>
#include <csignal>
#include <cstddef>
#include <latch>
#include <set>
#include <thread>

#include "platform/listening_socket.h"
#include "platform/work_pool.h"
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

struct Loopback {
    UniqueFd socket;
    sockaddr_in address{};
};

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

Loopback loopbackSocket(int type) {
    Loopback server{UniqueFd(socket(AF_INET, type | SOCK_CLOEXEC, 0))};
    server.address.sin_family = AF_INET;
    server.address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof server.address;
    EXPECT_EQ(bind(server.socket.get(), generic(server.address), length), 0);
    if (type == SOCK_STREAM) {
        EXPECT_EQ(listen(server.socket.get(), 1), 0);
    }
    getsockname(server.socket.get(), reinterpret_cast<sockaddr*>(&server.address), &length);
    return server;
}

// Everything that stands outside before a child is confined, and the child's own directories.
class SandboxTest : public testing::TestWithParam<uid_t> {
  protected:
    SandboxTest() {
        root_.write("etc/device.plist", "configuration");
        secret_ = root_.write("elsewhere/secret", "secret");
        // Only the state directory is there already.
        root_.write("state/old", "old");
        directories_ = {root_.path() / "run", root_.path() / "state", root_.path() / "etc",
                        root_.path() / "logs", root_.path() / "framework"};
        if (getuid() != 0) return;
        for (const char* owned : {".", "state", "state/old"}) {
            EXPECT_EQ(chown((root_.path() / owned).c_str(), GetParam(), GetParam()), 0);
        }
    }

    void SetUp() override {
        if (GetParam() != getuid() && getuid() != 0) GTEST_SKIP() << "needs to run as root";
    }

    // Runs `body` in a confined child of the parameter's user.
    std::string confined(const std::function<void(const ChildReport&, const SandboxStatus&)>& body) {
        return inForkedChild([&](const ChildReport& report) {
            if (GetParam() != getuid()) {
                report.expect(setgroups(0, nullptr) == 0, "setgroups");
                report.expect(setresgid(GetParam(), GetParam(), GetParam()) == 0, "setresgid");
                report.expect(setresuid(GetParam(), GetParam(), GetParam()) == 0, "setresuid");
            }
            const auto status = enterSandbox(kProfile, SandboxPaths::fromDirectories(directories_));
            if (!status) return report.wrong(status.error());
            body(report, *status);
        });
    }

    test::TemporaryDirectory root_;
    std::filesystem::path secret_;
    Directories directories_;
};

INSTANTIATE_TEST_SUITE_P(Users, SandboxTest, testing::ValuesIn(std::set{getuid(), kNobody}),
                         [](const auto& test) { return test.param == getuid() ? "asStarted" : "nobody"; });

TEST_P(SandboxTest, LeavesNoWayToOtherFiles) {
    const std::string parentMemory = "/proc/" + std::to_string(getpid()) + "/mem";
    EXPECT_EQ(confined([&](const ChildReport& report, const SandboxStatus&) {
                  const auto path = [&](const char* relative) { return (root_.path() / relative).string(); };
                  const struct {
                      std::string path;
                      int flags;
                  } refused[] = {{"/etc/shadow", O_RDONLY},
                                 {secret_, O_RDONLY},
                                 {secret_, O_WRONLY},
                                 {parentMemory, O_RDONLY},
                                 {path("elsewhere"), O_RDONLY | O_DIRECTORY},
                                 {path("elsewhere/new"), O_WRONLY | O_CREAT},
                                 {path("new"), O_WRONLY | O_CREAT},
                                 {path("etc/device.plist"), O_WRONLY},
                                 {path("etc/device.plist"), O_RDONLY | O_TRUNC},
                                 {path("etc/new"), O_WRONLY | O_CREAT},
                                 {"/tmp/telvora-leaves-the-sandbox", O_WRONLY | O_CREAT},
                                 {"/usr/bin/env", O_RDONLY},
                                 {"/dev/zero", O_RDONLY}};
                  for (const auto& [file, flags] : refused) {
                      report.expectErrno(open(file.c_str(), flags, 0600), EACCES, "open " + file);
                  }
                  const std::string old = path("state/old");
                  report.expectErrno(rename(old.c_str(), path("elsewhere/old").c_str()), EACCES, "move out");
                  report.expectErrno(unlink(secret_.c_str()), EACCES, "unlink");
                  report.expectErrno(symlink("/", path("state/link").c_str()), EPERM, "symlink");
                  report.expectErrno(mkfifo(path("state/fifo").c_str(), 0600), EPERM, "mkfifo");
                  report.expectErrno(link(old.c_str(), path("state/hard").c_str()), EPERM, "link");
              }),
              "");
}

TEST_P(SandboxTest, LeavesNoWayToOtherProcesses) {
    const UniqueFd abstractSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    socklen_t length = sizeof(sa_family_t);  // the kernel chooses an abstract name
    ASSERT_EQ(bind(abstractSocket.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(abstractSocket.get(), 1), 0);
    length = sizeof address;
    ASSERT_EQ(getsockname(abstractSocket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);

    EXPECT_EQ(confined([&](const ChildReport& report, const SandboxStatus& status) {
                  report.expectErrno(kill(getppid(), 0), EPERM, "kill parent");
                  report.expectErrno(kill(0, 0), EPERM, "kill group");
                  report.expectErrno(kill(-1, 0), EPERM, "kill all");
                  report.expectErrno(kill(getpid(), 0), 0, "kill self");
                  report.expectErrno(syscall(SYS_tgkill, getppid(), getppid(), 0), EPERM, "tgkill parent");
                  report.expectErrno(ptrace(PTRACE_ATTACH, getppid(), nullptr, nullptr), EPERM, "ptrace");
                  char* const arguments[] = {nullptr};
                  report.expectErrno(execve("/bin/true", arguments, arguments), EPERM, "execve");
                  if (!status.abstractSockets) return;
                  const UniqueFd client(socket(AF_UNIX, SOCK_STREAM, 0));
                  report.expectErrno(
                      connect(client.get(), reinterpret_cast<const sockaddr*>(&address), length), EPERM,
                      "connect to an abstract socket");
              }),
              "");
}

TEST_P(SandboxTest, LeavesNoWayIntoTheKernelOrTheNetwork) {
    EXPECT_EQ(
        confined([&](const ChildReport& report, const SandboxStatus& status) {
            for (const long call : {SYS_execveat,
                                    SYS_mount,
                                    SYS_umount2,
                                    SYS_unshare,
                                    SYS_setns,
                                    SYS_init_module,
                                    SYS_finit_module,
                                    SYS_bpf,
                                    SYS_keyctl,
                                    SYS_add_key,
                                    SYS_io_uring_setup,
                                    SYS_process_vm_writev,
                                    SYS_perf_event_open,
                                    SYS_userfaultfd,
                                    SYS_chroot,
                                    SYS_pivot_root,
                                    SYS_reboot,
                                    SYS_setuid,
                                    SYS_setgid,
                                    SYS_capset,
                                    SYS_sethostname,
                                    SYS_fchownat,
                                    SYS_pidfd_open,
                                    SYS_seccomp,
                                    SYS_landlock_restrict_self,
                                    SYS_setpriority}) {
                report.expectErrno(syscall(call, 0, 0, 0, 0, 0, 0), EPERM, "call " + std::to_string(call));
            }
            report.expectErrno(syscall(SYS_clone3, nullptr, 0), ENOSYS, "clone3");
            report.expectErrno(ioctl(STDIN_FILENO, TIOCSTI, "x"), EPERM, "TIOCSTI");
            constexpr int kMptcp = 262;
            const int sockets[][3] = {
                {AF_INET, SOCK_RAW, IPPROTO_ICMP},   {AF_INET6, SOCK_RAW, IPPROTO_TCP},
                {AF_INET, SOCK_DGRAM, IPPROTO_ICMP}, {AF_INET, SOCK_STREAM, kMptcp},
                {AF_PACKET, SOCK_DGRAM, 0},          {AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT},
                {AF_ALG, SOCK_SEQPACKET, 0},         {AF_VSOCK, SOCK_STREAM, 0}};
            for (const auto& [family, type, protocol] : sockets) {
                report.expectErrno(socket(family, type, protocol), EPERM,
                                   "socket of family " + std::to_string(family));
            }
            if (status.tcpBind) {
                const UniqueFd server(socket(AF_INET, SOCK_STREAM, 0));
                sockaddr_in any{};
                any.sin_family = AF_INET;
                report.expectErrno(bind(server.get(), generic(any), sizeof any), EACCES, "bind TCP");
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
        }),
        "");
}

TEST_P(SandboxTest, LeavesTheDaemonsFiles) {
    EXPECT_EQ(
        confined([&](const ChildReport& report, const SandboxStatus&) {
            const auto path = [&](const char* relative) { return root_.path() / relative; };
            report.expect(test::readFile(path("etc/device.plist")) == "configuration", "configuration");
            for (const char* directory : {"state", "logs", "run"}) {
                const auto made = path(directory) / "made";
                report.expectErrno(mkdir(made.c_str(), 0700), 0, "mkdir");
                const UniqueFd file(open((made / "a").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600));
                report.expectErrno(write(file.get(), "text", 4), 0, "write");
                report.expectErrno(fsync(file.get()), 0, "fsync");
                report.expectErrno(ftruncate(file.get(), 0), 0, "ftruncate");
                report.expectErrno(rename((made / "a").c_str(), (made / "b").c_str()), 0, "rename");
                report.expectErrno(unlink((made / "b").c_str()), 0, "unlink");
                report.expectErrno(rmdir(made.c_str()), 0, "rmdir");
            }
            for (const char* file : {"/etc/passwd", "/etc/group", "/etc/machine-id", "/proc/self/cgroup",
                                     "/etc/ssl/certs/ca-certificates.crt", "/dev/urandom"}) {
                if (access(file, F_OK) != 0) continue;
                report.expect(UniqueFd(open(file, O_RDONLY)).get() >= 0, file);
            }
            report.expect(UniqueFd(open("/dev/null", O_RDWR)).get() >= 0, "/dev/null");
            report.expect(getpwnam("root") != nullptr, "getpwnam");

            auto listening = openListeningSocket(directories_.runtime, "service");
            if (!listening) return report.wrong(listening.error());
        }),
        "");
}

TEST_P(SandboxTest, LeavesThreadsPlugInsAndClientsOfTheNetwork) {
    const Loopback tcp = loopbackSocket(SOCK_STREAM);
    const Loopback udp = loopbackSocket(SOCK_DGRAM);
    EXPECT_EQ(
        confined([&](const ChildReport& report, const SandboxStatus&) {
            WorkPool pool(2);
            std::latch blocked(3);
            std::latch release(1);
            for (int i = 0; i < 3; ++i) {
                asio::post(pool.context(), [&] {
                    const BlockingSection section;
                    blocked.count_down();
                    release.wait();
                });
            }
            blocked.wait();
            report.expect(pool.threadCount() == 5, "threads");
            release.count_down();
            pool.stop();

            report.expect(dlopen("libanl.so.1", RTLD_NOW) != nullptr, "dlopen");
            addrinfo* found = nullptr;
            report.expect(getaddrinfo("localhost", "443", nullptr, &found) == 0, "getaddrinfo");
            freeaddrinfo(found);

            const UniqueFd stream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
            report.expectErrno(connect(stream.get(), generic(tcp.address), sizeof tcp.address), 0, "TCP");
            const UniqueFd datagram(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP));
            report.expectErrno(connect(datagram.get(), generic(udp.address), sizeof udp.address), 0, "UDP");
            report.expect(send(datagram.get(), "x", 1, 0) == 1, "send");
        }),
        "");
}

TEST_P(SandboxTest, SaysWhatIsInForce) {
    EXPECT_EQ(
        confined([&](const ChildReport& report, const SandboxStatus& status) {
            const std::string self = test::readFile("/proc/self/status");
            const auto has = [&](const char* line) { return self.find(line) != std::string::npos; };
            report.expect(status.profile == kProfile && status.landlockAbi >= 1 && status.files, "Landlock");
            report.expect(status.systemCallFilter && has("\nSeccomp:\t2\n"), "seccomp");
            report.expect(status.noNewPrivileges && has("\nNoNewPrivs:\t1\n"), "no_new_privs");
            for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
                report.expect(has((std::string(set) + ":\t0000000000000000\n").c_str()), set);
            }
            report.expect(status.noCapabilities, "capabilities");
            report.expect(status.emptyBoundingSet == has("CapBnd:\t0000000000000000\n"), "bounding set");
            report.expect(status.notDumpable == (prctl(PR_GET_DUMPABLE) == 0), "dumpable");
            report.expect(status.notDumpable || kSanitized, "dumpable in this build");
            report.expect(status.description().starts_with("com.zandor.telvorad (Landlock ABI "), "text");
        }),
        "");
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
