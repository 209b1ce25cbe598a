// SPDX-License-Identifier: Apache-2.0
//
// Descriptors that block whoever closes them last.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "util/unique_fd.h"

namespace telvora::test {

// A TCP socket on loopback that completes connections and never reads.
inline UniqueFd silentListener() {
    UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener.get(), reinterpret_cast<sockaddr*>(&loopback), sizeof loopback) != 0 ||
        listen(listener.get(), 64) != 0) {
        throw std::runtime_error("no listener");
    }
    return listener;
}

// A socket connected to the listener, with unsent data: close(2) of it waits for an hour.
inline UniqueFd lingeringSocket(const UniqueFd& listener) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
    UniqueFd connected(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(connected.get(), reinterpret_cast<sockaddr*>(&address), size) != 0)
        throw std::runtime_error("no connection");
    const std::string bytes(1 << 16, 'x');
    while (send(connected.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
    const linger hour{1, 3600};
    setsockopt(connected.get(), SOL_SOCKET, SO_LINGER, &hour, sizeof hour);
    return connected;
}

// Sends the bytes with the descriptors; false if the kernel refuses.
inline bool sendWith(int socket, std::string_view bytes, const std::vector<int>& descriptors) {
    constexpr size_t kMost = 64;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kMost * sizeof(int))> control{};
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size() * sizeof(int));
    return sendmsg(socket, &message, MSG_NOSIGNAL) > 0;
}

}  // namespace telvora::test
