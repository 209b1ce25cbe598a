// SPDX-License-Identifier: Apache-2.0
//
// The other end of a UdpSocket: a plain socket on 127.0.0.1.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "util/unique_fd.h"

namespace telvora::test {

class UdpPeer {
  public:
    // Opens a socket, on a port that the kernel chooses.
    UdpPeer() { open(); }

    uint16_t port() const { return ntohs(own_.sin_port); }
    // Goes away: datagrams are refused. And comes back on the same port.
    void close() { fd_.reset(); }
    bool open() {
        fd_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        own_.sin_family = AF_INET;
        own_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof own_;
        return bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own_), sizeof own_) == 0 &&
               getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&own_), &length) == 0;
    }

    // Waits for a datagram; a test that hangs here is ended by its timeout.
    std::string receive() {
        std::string datagram(65536, '\0');
        socklen_t length = sizeof sender_;
        const ssize_t received = recvfrom(fd_.get(), datagram.data(), datagram.size(), 0,
                                          reinterpret_cast<sockaddr*>(&sender_), &length);
        datagram.resize(received > 0 ? static_cast<size_t>(received) : 0);
        return datagram;
    }
    // Sends to whoever sent last.
    void answer(const std::string& datagram) {
        sendto(fd_.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&sender_),
               sizeof sender_);
    }

  private:
    UniqueFd fd_;
    sockaddr_in own_{};
    sockaddr_in sender_{};
};

}  // namespace telvora::test
