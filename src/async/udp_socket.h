// SPDX-License-Identifier: Apache-2.0
//
// A datagram socket (udp(7)) that never blocks and reports readiness on a strand.
//
// A socket belongs to its strand once it has been handed to it; until then, to the thread that made it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "async/work_pool.h"

namespace telvora {

class UdpSocket {
  public:
    // Closes.
    virtual ~UdpSocket() = default;

    // Binds to the wildcard address and a port that the kernel chooses. Returns 0 or the error number.
    virtual int bindToAnyAddress() = 0;
    // Prepares the socket for whenReadable(); false if the kernel refuses.
    virtual bool makeReadSource() = 0;
    // Exchanges datagrams only with this peer from now on. `address` is read as inet_addr(3) does, of its
    // first 16 bytes: text that is no address means 255.255.255.255, to which a socket can't be connected
    // here. Returns 0 or the error number.
    virtual int connect(const std::string& address, uint16_t port) = 0;

    // Whether the network took the whole datagram. The error of an earlier datagram may fail this call; then
    // this one is not sent.
    virtual bool send(std::string_view datagram) = 0;
    // Receives one datagram, cut to the size of the buffer. Returns its length; 0 on an error or if no
    // datagram is there.
    virtual size_t receive(std::span<char> buffer) = 0;
    // Calls `handler` once on the strand when a datagram can be received or an error is pending. One wait at
    // a time; needs makeReadSource(). close() drops the handler without a call.
    virtual void whenReadable(std::function<void()> handler) = 0;
    virtual void close() = 0;
};

// A new IPv4 socket, or the error number of socket(2).
tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket(Strand strand);

}  // namespace telvora
