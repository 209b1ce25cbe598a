// SPDX-License-Identifier: Apache-2.0
//
// Who is at the other end of a Unix socket, known from the kernel alone (unix(7)): nothing here is what the
// peer says of itself.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace telvora {

// The peer as it was when it connected (or, of a socket pair, when it made the pair). A plain value.
struct Peer {
    pid_t pid = 0;  // 0 when the process is outside our pid namespace
    uid_t uid = 0;
    gid_t gid = 0;              // its primary group
    std::vector<gid_t> groups;  // its supplementary groups
    std::string label;          // what the security module calls it (SO_PEERSEC); empty without one
    std::string unit;           // its systemd unit, as "app.service"; empty when that isn't known for sure

    bool isInGroup(gid_t group) const;
    // For log lines: "pid 4711, uid 1000".
    std::string description() const;
};

// The peer of a connected Unix socket, which stays the caller's; nothing when it is no such socket. The unit
// is known only where the kernel names the peer's process by a descriptor (SO_PEERPIDFD, Linux 6.5): a bare
// number might long belong to another process. Does not block; thread-safe.
std::optional<Peer> readPeer(int socket);

}  // namespace telvora
