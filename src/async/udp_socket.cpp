// SPDX-License-Identifier: Apache-2.0
#include "async/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <utility>

#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr size_t kMaxAddressText = 16;

int bindOrConnect(int (*call)(int, const sockaddr*, socklen_t), int fd, const sockaddr_in& address) {
    return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

class AsioUdpSocket final : public UdpSocket {
  public:
    AsioUdpSocket(UniqueFd fd, Strand strand) : fd_(std::move(fd)), readSource_(std::move(strand)) {}
    ~AsioUdpSocket() override { readSource_.release(); }  // the descriptor is closed as fd_

    int bindToAnyAddress() override {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        return bindOrConnect(&::bind, fd_.get(), any);
    }

    bool makeReadSource() override {
        asio::error_code error;
        readSource_.assign(fd_.get(), error);
        return !error;
    }

    int connect(const std::string& address, uint16_t port) override {
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(port);
        peer.sin_addr.s_addr = inet_addr(address.substr(0, kMaxAddressText).c_str());
        return bindOrConnect(&::connect, fd_.get(), peer);
    }

    bool send(std::string_view datagram) override {
        const ssize_t sent = ::send(fd_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
        return sent >= 0 && static_cast<size_t>(sent) == datagram.size();
    }

    size_t receive(std::span<char> buffer) override {
        const ssize_t received = ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
        return received > 0 ? static_cast<size_t>(received) : 0;
    }

    void whenReadable(std::function<void()> handler) override {
        readSource_.async_wait(asio::posix::stream_descriptor::wait_read,
                               [handler = std::move(handler)](asio::error_code error) {
                                   if (!error) handler();
                               });
    }

    void close() override {
        if (readSource_.is_open()) readSource_.release();
        fd_.reset();
    }

  private:
    UniqueFd fd_;
    asio::posix::stream_descriptor readSource_;
};

}  // namespace

tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket(Strand strand) {
    UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP));
    if (!fd) return tl::unexpected(errno);
    return std::make_unique<AsioUdpSocket>(std::move(fd), std::move(strand));
}

}  // namespace telvora
