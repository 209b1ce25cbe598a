// SPDX-License-Identifier: Apache-2.0
//
// The peer of a UdpSocket: a plain socket on 127.0.0.1.
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <string>

namespace telvora::test {

class UdpPeer {
  public:
    uint16_t port() const { return own_.port(); }
    // Closes the socket, so that datagrams are refused; and opens it again on the same port.
    void close() { socket_.close(); }
    void open() { socket_ = asio::ip::udp::socket(context_, own_); }

    // Waits for a datagram. CTest's timeout ends a test that hangs here.
    std::string receive() {
        std::string datagram(65536, '\0');
        datagram.resize(socket_.receive_from(asio::buffer(datagram), sender_));
        return datagram;
    }
    // Sends to the last sender.
    void answer(const std::string& datagram) { socket_.send_to(asio::buffer(datagram), sender_); }

  private:
    asio::io_context context_;
    // Uses a port that the kernel chooses.
    asio::ip::udp::socket socket_{context_, {asio::ip::address_v4::loopback(), 0}};
    const asio::ip::udp::endpoint own_ = socket_.local_endpoint();
    asio::ip::udp::endpoint sender_;
};

}  // namespace telvora::test
