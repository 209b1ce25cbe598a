// SPDX-License-Identifier: Apache-2.0
//
// A TCP server on 127.0.0.1 whose connections run a test's script, byte by byte: for malformed answers.
#pragma once

#include <poll.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>
#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace telvora::test {

class ScriptedServer {
  public:
    // One accepted connection, for its script. All operations return at the peer's end or the server's.
    class Connection {
      public:
        explicit Connection(asio::ip::tcp::socket& socket) : socket_(socket) {}

        // One HTTP request: its head and the body of Content-Length bytes. "" if the peer has closed.
        std::string readRequest() {
            size_t size = asio::read_until(socket_, asio::dynamic_buffer(received_), "\r\n\r\n", gone_);
            if (gone_) return {};
            constexpr std::string_view kLength = "Content-Length: ";
            const size_t at = received_.find(kLength);
            if (at < size) size += std::stoul(received_.substr(at + kLength.size()));
            if (received_.size() < size) {
                asio::read(socket_, asio::dynamic_buffer(received_),
                           asio::transfer_exactly(size - received_.size()), gone_);
            }
            if (gone_) return {};
            std::string request = received_.substr(0, size);
            received_.erase(0, size);
            return request;
        }
        void send(std::string_view text) { asio::write(socket_, asio::buffer(text), gone_); }
        // Reads more of a request.
        void readSome() {
            asio::read(socket_, asio::dynamic_buffer(received_), asio::transfer_at_least(1), gone_);
        }
        void waitForClose() {
            while (!gone_)
                readSome();
        }
        // Waits without reading; false if the peer has not closed within `limit`.
        bool waitForEnd(std::chrono::milliseconds limit) {
            pollfd peer{socket_.native_handle(), POLLRDHUP, 0};
            return ::poll(&peer, 1, static_cast<int>(limit.count())) != 0;
        }

      private:
        asio::ip::tcp::socket& socket_;
        asio::error_code gone_;
        std::string received_;
    };

    // Runs on a thread per connection. The connection is closed when it returns.
    using Script = std::function<void(Connection&)>;

    explicit ScriptedServer(Script script)
        : script_(std::move(script)), port_(listener_.local_endpoint().port()) {}
    ~ScriptedServer() {
        ::shutdown(listener_.native_handle(), SHUT_RDWR);
        acceptor_.join();
        for (Peer& peer : peers_) {
            ::shutdown(peer.socket.native_handle(), SHUT_RDWR);
            peer.thread.join();
        }
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    uint16_t port() const { return port_; }
    std::string url(std::string_view path = "/") const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }
    size_t connections() const {
        const std::lock_guard lock(mutex_);
        return peers_.size();
    }

  private:
    struct Peer {
        asio::ip::tcp::socket socket;
        std::thread thread;
    };

    void acceptAll() {
        for (asio::error_code ended;;) {
            asio::ip::tcp::socket socket = listener_.accept(ended);
            if (ended) return;
            const std::lock_guard lock(mutex_);
            Peer& peer = peers_.emplace_back(Peer{std::move(socket), {}});
            peer.thread = std::thread([this, &socket = peer.socket] {
                Connection connection(socket);
                script_(connection);
                ::shutdown(socket.native_handle(), SHUT_RDWR);
            });
        }
    }

    const Script script_;
    asio::io_context context_;
    asio::ip::tcp::acceptor listener_{context_, {asio::ip::address_v4::loopback(), 0}};
    const uint16_t port_;
    mutable std::mutex mutex_;
    std::list<Peer> peers_;
    std::thread acceptor_{[this] { acceptAll(); }};
};

}  // namespace telvora::test
