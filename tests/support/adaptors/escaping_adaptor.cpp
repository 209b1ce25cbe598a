// SPDX-License-Identifier: Apache-2.0
//
// A metrics adaptor that tries to leave the daemon's sandbox at each report. The payload names the targets:
// "directory" (a client's, with a file "secret"), "own" (a directory of the daemon's), "configuration" (a
// file that it reads), "process", "socket" (the name of an abstract one) and "landlockAbi". It writes a line
// "escape NAME: ERROR" for each attempt with another result than the expected one, and at last "escape:
// done".
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "telvora/vodex_adaptor.h"

namespace {

const telvora_vodex_host* host;

void tell(const char* name, long result, int expected = EPERM) {
    const int error = result < 0 ? errno : 0;
    if (error != expected) std::fprintf(stderr, "escape %s: %s\n", name, strerrorname_np(error));
}

long openFile(const std::string& path, int flags) {
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (file >= 0) close(file);
    return file;
}

void files(const std::string& directory, const std::string& own, const std::string& configuration,
           const std::string& process) {
    const std::string secret = directory + "/secret";
    tell("read shadow", openFile("/etc/shadow", O_RDONLY), EACCES);
    tell("list home", openFile(directory, O_RDONLY | O_DIRECTORY), EACCES);
    tell("read home", openFile(secret, O_RDONLY), EACCES);
    tell("read home through proc", openFile("/proc/" + process + "/root" + secret, O_RDONLY), EACCES);
    tell("write home", openFile(secret, O_WRONLY), EACCES);
    tell("truncate home", truncate(secret.c_str(), 0));
    tell("make in home", openFile(directory + "/new", O_WRONLY | O_CREAT), EACCES);
    tell("make in tmp", openFile("/tmp/telvora-escape", O_WRONLY | O_CREAT), EACCES);
    tell("remove from home", unlink(secret.c_str()), EACCES);
    tell("move into home", rename((own + "/file").c_str(), (directory + "/file").c_str()), EACCES);
    tell("link home", link(secret.c_str(), (own + "/link").c_str()));
    tell("symlink", symlink(directory.c_str(), (own + "/symlink").c_str()));
    tell("chmod home", chmod(secret.c_str(), 0777));
    tell("chown home", chown(secret.c_str(), 1, 1));
    tell("utimes home", utimensat(AT_FDCWD, secret.c_str(), nullptr, 0));
    tell("write own configuration", openFile(configuration, O_WRONLY), EACCES);
    tell("truncate own configuration", openFile(configuration, O_RDONLY | O_TRUNC));
    tell("device", openFile("/dev/zero", O_RDWR), EACCES);
}

void processes(pid_t process) {
    char* const nothing[] = {nullptr};
    tell("exec", execve("/bin/true", nothing, nothing));
    tell("execveat", syscall(SYS_execveat, AT_FDCWD, "/bin/true", nothing, nothing, 0));
#ifndef TELVORA_SANITIZED  // the sanitizers' runtimes need these
    tell("fork", fork());
    tell("ptrace", ptrace(PTRACE_SEIZE, process, nullptr, nullptr));
    tell("process_vm_readv", syscall(SYS_process_vm_readv, process, nullptr, 0, nullptr, 0, 0));
#endif
    tell("read its memory", openFile("/proc/" + std::to_string(process) + "/mem", O_RDONLY), EACCES);
    // Signal 0 needs the same permission and does no harm.
    tell("signal", kill(process, 0));
    tell("signal all", kill(-1, 0));
    tell("signal a thread", syscall(SYS_tgkill, process, process, 0));
    tell("pidfd_open", syscall(SYS_pidfd_open, process, 0));
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return tell("socketpair", -1);
    tell("signal by a descriptor", fcntl(pair[0], F_SETOWN, process));
    close(pair[0]);
    close(pair[1]);
}

// The kernel refuses abstract sockets from Landlock ABI 6 on.
void networks(const std::string& name, int64_t landlockAbi) {
    tell("raw socket", socket(AF_INET, SOCK_RAW, IPPROTO_ICMP));
    tell("packet socket", socket(AF_PACKET, SOCK_RAW, 0));
    const int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    tell("listen unbound", listen(tcp, 1));
    tell("bind TCP", bind(tcp, reinterpret_cast<const sockaddr*>(&any), sizeof any));
    close(tcp);
    const int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    tell("bind UDP", bind(udp, reinterpret_cast<const sockaddr*>(&any), sizeof any));
    close(udp);
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    tell("abstract socket", connect(client, reinterpret_cast<const sockaddr*>(&address), length),
         landlockAbi >= 6 ? EPERM : 0);
    close(client);
}

void kernel() {
    tell("mount", mount("none", "/mnt", "tmpfs", 0, nullptr));
    tell("unshare", unshare(CLONE_NEWUSER));
    tell("load a module", syscall(SYS_init_module, nullptr, 0, ""));
    tell("load a module's file", syscall(SYS_finit_module, STDERR_FILENO, "", 0));
    tell("bpf", syscall(SYS_bpf, 0, nullptr, 0));
    tell("device ioctl", ioctl(STDERR_FILENO, TIOCSTI, "x"));
    tell("io_uring", syscall(SYS_io_uring_setup, 1, nullptr));
    tell("become root", setuid(0));
}

std::string text(const telvora_vodex_value* payload, const char* key) {
    const char* bytes = host->bytes(host->value_for_key(payload, key), nullptr);
    return bytes != nullptr ? bytes : "";
}

void* create(const telvora_vodex_host* given) {
    host = given;
    static int instance;
    return &instance;
}

void send(void*, uint16_t method, uint16_t, const telvora_vodex_value* payload) {
    if (method == 0) return;  // the daemon's own reports
    const int64_t process = host->integer(host->value_for_key(payload, "process"));
    files(text(payload, "directory"), text(payload, "own"), text(payload, "configuration"),
          std::to_string(process));
    processes(static_cast<pid_t>(process));
    networks(text(payload, "socket"), host->integer(host->value_for_key(payload, "landlockAbi")));
    kernel();
    std::fputs("escape: done\n", stderr);
}

}  // namespace

const telvora_vodex_adaptor_class VodexAdaptor = {TELVORA_VODEX_ADAPTOR_VERSION, create, send, nullptr};
