// SPDX-License-Identifier: Apache-2.0
#include "access/peer.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <string_view>

#include "platform/environment_file.h"
#include "util/ascii.h"
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

// A label without the zero byte or the line feed that follows it.
std::string withoutEnd(std::string label) {
    while (!label.empty() && (label.back() == '\0' || label.back() == '\n'))
        label.pop_back();
    return label;
}

// The descriptor becomes readable when the process ends; only then can its ID be reused.
bool isAlive(int processDescriptor) {
    pollfd entry{processDescriptor, POLLIN, 0};
    return poll(&entry, 1, 0) == 0;
}

std::string directoryOf(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

// The path of the process's control group, cgroups(7); empty if it is not known. The unified hierarchy
// counts, and where there is none, the one that the service manager has for itself.
std::string controlGroup(pid_t pid) {
    const std::string groups = readSmallFile(directoryOf(pid) + "/cgroup", kMaxOptionBytes).value_or("");
    std::string_view path;
    for (std::string_view rest = groups; !rest.empty();) {
        const std::string_view line = takePart(rest, '\n');
        constexpr std::string_view kUnified = "0::";
        const size_t named = line.find(":name=systemd:");
        if (line.starts_with(kUnified) && path.empty()) path = line.substr(kUnified.size());
        if (named != std::string::npos) path = line.substr(line.find(':', named + 1) + 1);
    }
    return std::string(path);
}

// The numbers of a line of /proc/PID/status, between tabs and blanks.
std::vector<uint32_t> numbersIn(std::string_view line) {
    std::vector<uint32_t> numbers;
    while (!(line = trimmed(line)).empty()) {
        uint32_t number = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
        if (error != std::errc()) break;
        numbers.push_back(number);
        line.remove_prefix(static_cast<size_t>(end - line.data()));
    }
    return numbers;
}

// The unit is looked up by process ID. If the process is still alive afterwards, the ID was its own.
std::string readUnit(int socket, pid_t pid) {
    int descriptor = -1;
    socklen_t length = sizeof descriptor;
    if (pid <= 0 || getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &length) != 0) return "";
    const UniqueFd process(descriptor);
    const std::string unit = unitOfControlGroup(controlGroup(pid));
    return isAlive(process.get()) ? unit : "";
}

std::optional<ucred> readCredentials(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    if (credentials.uid == static_cast<uid_t>(-1)) return std::nullopt;  // no Unix socket, or not connected
    return credentials;
}

}  // namespace

// The first element that is no slice names the unit.
std::string unitOfControlGroup(std::string_view path) {
    while (!path.empty()) {
        path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
        std::string_view element = path.substr(0, path.find('/'));
        path.remove_prefix(element.size());
        // Names that the kernel reserves are escaped.
        if (element.starts_with('_')) element.remove_prefix(1);
        if (element.ends_with(".slice")) continue;
        const bool isUnit = element.ends_with(".service") || element.ends_with(".scope") ||
                            element.ends_with(".socket") || element.ends_with(".mount") ||
                            element.ends_with(".swap");
        return isUnit ? std::string(element) : "";
    }
    return "";
}

bool Peer::isInGroup(gid_t group) const {
    return group == gid || std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string Peer::description() const {
    return "pid " + std::to_string(pid) + ", uid " + std::to_string(uid);
}

std::optional<Peer> peerOfProcess(pid_t pid) {
    const auto status = readSmallFile(directoryOf(pid) + "/status", kMaxOptionBytes);
    Peer peer;
    bool found = false;
    for (std::string_view rest = status ? *status : std::string_view(); !rest.empty();) {
        std::string_view line = takePart(rest, '\n');
        const std::string_view key = takePart(line, ':');
        const std::vector<uint32_t> numbers = numbersIn(line);
        if (key == "Uid" && numbers.size() > 1) {
            peer.uid = numbers[1];  // the effective one
            found = true;
        } else if (key == "Gid" && numbers.size() > 1) {
            peer.gid = numbers[1];
        } else if (key == "Groups") {
            peer.groups = numbers;
        }
    }
    if (!found) return std::nullopt;
    peer.pid = pid;
    peer.unit = unitOfControlGroup(controlGroup(pid));
    peer.label = withoutEnd(readSmallFile(directoryOf(pid) + "/attr/current").value_or(""));
    return peer;
}

std::optional<uid_t> userOfPeer(int socket) {
    const auto credentials = readCredentials(socket);
    return credentials ? std::optional(credentials->uid) : std::nullopt;
}

std::optional<Peer> readPeer(int socket) {
    const auto credentials = readCredentials(socket);
    if (!credentials) return std::nullopt;
    Peer peer;
    peer.pid = credentials->pid;
    peer.uid = credentials->uid;
    peer.gid = credentials->gid;
    peer.groups = readGroups(socket);
    peer.label = withoutEnd(readOption(socket, SO_PEERSEC).value_or(""));
    peer.unit = readUnit(socket, peer.pid);
    return peer;
}

}  // namespace telvora
