// SPDX-License-Identifier: Apache-2.0
#include "doctor_socket.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "util/ascii.h"
#include "util/error_text.h"
#include "util/unique_fd.h"

namespace telvora::ctl {

namespace {

constexpr char kUnit[] = "com.zandor.telvorad.socket";
constexpr char kStart[] =
    "start it: systemctl enable --now com.zandor.telvorad.socket "
    "com.zandor.telvorad.Status.socket";
constexpr char kStartByHand[] = "start telvorad by hand, see telvorad(8)";

std::string nameOfUser(uid_t user) {
    const passwd* entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::string nameOfGroup(gid_t group) {
    const ::group* entry = getgrgid(group);
    return entry != nullptr ? entry->gr_name : std::to_string(group);
}

bool systemdRuns() {
    std::error_code ignored;
    return std::filesystem::exists("/run/systemd/system", ignored);
}

// The state of the service's socket unit, for people.
std::string stateOfUnit() {
    if (!systemdRuns()) return "systemd does not run here";
    const std::string command =
        std::string("systemctl show --property=LoadState,ActiveState --value ") + kUnit + " 2>/dev/null";
    FILE* const output = popen(command.c_str(), "r");
    if (output == nullptr) return "the state of its unit is unknown";
    char line[64] = "";
    std::string states;
    while (std::fgets(line, sizeof line, output) != nullptr)
        states += (states.empty() ? "" : ", ") + std::string(trimmed(line));
    pclose(output);
    return std::string("unit ") + kUnit + ": " + (states.empty() ? "unknown" : states);
}

// 0, or the error that connect(2) would have. A socket of another type passes the same checks before its type
// is refused, so that the daemon has no session to count.
int connectError(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return ENAMETOOLONG;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (socket && connect(socket.get(), generic, sizeof address) == 0) return ENOTSOCK;
    return errno == EPROTOTYPE ? 0 : errno;
}

// The kernel's rule for connect(2) to a socket with these rights.
bool mayConnect(const struct stat& socket, const Peer& process) {
    if (process.uid == 0) return true;
    if (process.uid == socket.st_uid) return (socket.st_mode & S_IWUSR) != 0;
    return (socket.st_mode & (process.isInGroup(socket.st_gid) ? S_IWGRP : S_IWOTH)) != 0;
}

std::string rightsOf(const struct stat& socket) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(socket.st_mode & 07777));
    return "user " + nameOfUser(socket.st_uid) + ", group " + nameOfGroup(socket.st_gid) + ", mode " + mode;
}

}  // namespace

void examineSocket(DoctorReport& report, const std::string& path, const Peer& process) {
    constexpr auto kStep = DoctorStep::socket;
    const char* const start = systemdRuns() ? kStart : kStartByHand;
    struct stat socket {};
    if (stat(path.c_str(), &socket) != 0) {
        const int error = errno;
        if (error == EACCES) {
            return report.bad(kStep, "permission denied: a directory above " + path + " can't be searched",
                              "let this user search the directory, or run the doctor as root");
        }
        return report.bad(
            kStep, "there is no socket " + path + " (" + errorText(error) + "); " + stateOfUnit(), start);
    }
    if (!S_ISSOCK(socket.st_mode)) {
        return report.bad(kStep, path + " is no socket",
                          "correct --socket, TELVORA_SOCKET or RUNTIME_DIRECTORY");
    }
    const bool isThisProcess = process.uid == geteuid() && process.pid == getpid();
    const int error = isThisProcess ? connectError(path) : mayConnect(socket, process) ? 0 : EACCES;
    if (error == 0) {
        return report.good(kStep, path +
                                      (isThisProcess ? " accepts connections" : " lets the process connect") +
                                      " (" + rightsOf(socket) + ")");
    }
    if (error == EACCES) {
        const std::string group = nameOfGroup(socket.st_gid), user = nameOfUser(process.uid);
        const std::string cause = "permission denied: " + path + " has " + rightsOf(socket);
        if ((socket.st_mode & S_IWGRP) == 0)
            return report.bad(kStep, cause,
                              "let its group connect: SocketMode=0660 in the unit of the socket");
        return report.bad(kStep, cause + ", and user " + user + " is not in that group",
                          "usermod -aG " + group + " " + user + ", and a new login");
    }
    report.bad(kStep, "no process listens on " + path + " (" + errorText(error) + "); " + stateOfUnit(),
               start);
}

Peer thisProcess() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
        const UniqueFd first(ends[0]), second(ends[1]);
        if (auto peer = readPeer(first.get())) return *peer;
    }
    return peerOfProcess(getpid()).value_or(Peer());
}

std::string describeProcess(const Peer& process) {
    return "user " + std::to_string(process.uid) + " (" + nameOfUser(process.uid) + "), pid " +
           std::to_string(process.pid) + (process.unit.empty() ? "" : ", unit " + process.unit);
}

}  // namespace telvora::ctl
