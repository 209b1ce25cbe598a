// SPDX-License-Identifier: Apache-2.0
//
// A datagram socket (udp(7)) that never blocks and reports readiness on a strand.
//
// An object belongs to its strand once it has been handed over to it; until then, to the thread that made it.
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

    // Binds to the wildcard address and a port that the kernel chooses. 0, or the error number.
    virtual int bindToAnyAddress() = 0;
    // Makes it possible to wait for datagrams; false when the kernel refuses.
    virtual bool makeReadSource() = 0;
    // From now on datagrams go to, and come from, this peer only. `address` is read as inet_addr(3) does, of
    // its first 16 bytes: text that is no address means 255.255.255.255, to which a socket can't be connected
    // here. 0, or the error number.
    virtual int connect(const std::string& address, uint16_t port) = 0;

    // Whether the whole datagram was handed to the network. That an earlier one was refused may show here,
    // and then this one isn't sent.
    virtual bool send(std::string_view datagram) = 0;
    // One datagram, cut to the buffer's size. Its length, or nothing when none is there or an error was.
    virtual size_t receive(std::span<char> buffer) = 0;
    // Calls `handler` once on the strand when something can be received or an error is pending. One wait at
    // a time; needs the read source. Closing drops the handler without a call.
    virtual void whenReadable(std::function<void()> handler) = 0;
    virtual void close() = 0;
};

// A new IPv4 socket, or the error number of socket(2).
tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket(Strand strand);

}  // namespace telvora
