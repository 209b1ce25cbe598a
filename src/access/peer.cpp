// SPDX-License-Identifier: Apache-2.0
#include "access/peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-login.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "util/unique_fd.h"

// The C library's headers may be older than the running kernel.
#if !defined(SO_PEERPIDFD)
#if defined(__hppa__) || defined(__sparc__)
#error "SO_PEERPIDFD has another number here"
#endif
#define SO_PEERPIDFD 77
#endif

namespace telvora {

namespace {

constexpr size_t kMaxOptionBytes = size_t{1} << 20;

// The value of a socket option of any size; std::nullopt if the socket lacks it.
std::optional<std::string> readOption(int socket, int option) {
    std::string value(256, '\0');
    while (value.size() <= kMaxOptionBytes) {
        auto length = static_cast<socklen_t>(value.size());
        const bool read = getsockopt(socket, SOL_SOCKET, option, value.data(), &length) == 0;
        if (!read && errno != ERANGE) return std::nullopt;
        // If the buffer is too small, the kernel returns the needed size.
        const bool fits = read && length <= value.size();
        value.resize(fits || length > value.size() ? length : value.size() * 2);
        if (fits) return value;
    }
    return std::nullopt;
}

std::vector<gid_t> readGroups(int socket) {
    const std::string bytes = readOption(socket, SO_PEERGROUPS).value_or("");
    std::vector<gid_t> groups(bytes.size() / sizeof(gid_t));
    bytes.copy(reinterpret_cast<char*>(groups.data()), groups.size() * sizeof(gid_t));
    return groups;
}

std::string readLabel(int socket) {
    std::string label = readOption(socket, SO_PEERSEC).value_or("");
    while (!label.empty() && (label.back() == '\0' || label.back() == '\n'))
        label.pop_back();
    return label;
}

// The descriptor becomes readable when the process ends; only then can its ID be reused.
bool isAlive(int processDescriptor) {
    pollfd entry{processDescriptor, POLLIN, 0};
    return poll(&entry, 1, 0) == 0;
}

// The unit is looked up by process ID. If the process is still alive afterwards, the ID was its own.
std::string readUnit(int socket, pid_t pid) {
    int descriptor = -1;
    socklen_t length = sizeof descriptor;
    if (pid <= 0 || getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &length) != 0) return "";
    const UniqueFd process(descriptor);
    char* unit = nullptr;
    if (sd_pid_get_unit(pid, &unit) < 0) return "";
    const std::unique_ptr<char, decltype(&free)> owned(unit, &free);
    return isAlive(process.get()) ? std::string(unit) : "";
}

}  // namespace

bool Peer::isInGroup(gid_t group) const {
    return group == gid || std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string Peer::description() const {
    return "pid " + std::to_string(pid) + ", uid " + std::to_string(uid);
}

std::optional<Peer> readPeer(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    if (credentials.uid == static_cast<uid_t>(-1)) return std::nullopt;  // no Unix socket, or not connected
    Peer peer;
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;
    peer.groups = readGroups(socket);
    peer.label = readLabel(socket);
    peer.unit = readUnit(socket, peer.pid);
    return peer;
}

}  // namespace telvora
