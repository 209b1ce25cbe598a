// SPDX-License-Identifier: Apache-2.0
//
// The peer of a Unix socket, identified by the kernel alone (unix(7)), not by its own claims.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace telvora {

// The peer at the time of connect(2) or socketpair(2). A plain value.
struct Peer {
    pid_t pid = 0;  // 0 if the process is outside our pid namespace
    uid_t uid = 0;
    gid_t gid = 0;              // primary group
    std::vector<gid_t> groups;  // supplementary groups
    std::string label;          // from the security module (SO_PEERSEC); empty without one
    std::string unit;           // systemd unit, as "app.service"; empty if it isn't known for sure

    bool isInGroup(gid_t group) const;
    // For log lines: "pid 4711, uid 1000".
    std::string description() const;
};

// The systemd unit of the processes in a control group, by its path; empty if there is none.
std::string unitOfControlGroup(std::string_view path);

// The peer of a socket that the process of that ID would connect now, from proc(5); std::nullopt if there is
// no such process, or it may not be seen. For people who ask about a process: the ID may be reused.
std::optional<Peer> peerOfProcess(pid_t pid);

// The user of the peer of a connected Unix socket; std::nullopt for any other socket. Thread-safe.
std::optional<uid_t> userOfPeer(int socket);

// The peer of a connected Unix socket, which stays the caller's; std::nullopt for any other socket. The unit
// is known only if the kernel identifies the process by a descriptor (SO_PEERPIDFD, Linux 6.5): a process ID
// may have been reused. Does not block; thread-safe.
std::optional<Peer> readPeer(int socket);

}  // namespace telvora
