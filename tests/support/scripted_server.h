// SPDX-License-Identifier: Apache-2.0
//
// A TCP server on 127.0.0.1 whose connections run a test's script, byte by byte: for malformed answers.
#pragma once

#include <poll.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
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
        explicit Connection(asio::ip::tcp::socket socket) : stream_(std::move(socket)) {}

        // One HTTP request: its head and the body of Content-Length bytes. "" if the peer has closed.
        std::string readRequest() {
            constexpr std::string_view kLength = "Content-Length: ";
            std::string request, body;
            for (std::string line; line != "\r" && std::getline(stream_, line); request += line + '\n') {
                if (line.starts_with(kLength)) body.resize(std::stoul(line.substr(kLength.size())));
            }
            stream_.read(body.data(), static_cast<std::streamsize>(body.size()));
            return stream_ ? request + body : "";
        }
        void send(std::string_view text) { stream_ << text << std::flush; }
        // Reads more of a request.
        void readSome() { stream_.get(); }
        void waitForClose() { stream_.ignore(std::numeric_limits<std::streamsize>::max()); }
        void end() { ::shutdown(stream_.rdbuf()->socket().native_handle(), SHUT_RDWR); }
        // Waits without reading; false if the peer has not closed within `limit`.
        bool waitForEnd(std::chrono::milliseconds limit) {
            pollfd peer{stream_.rdbuf()->socket().native_handle(), POLLRDHUP, 0};
            return ::poll(&peer, 1, static_cast<int>(limit.count())) != 0;
        }

      private:
        asio::ip::tcp::iostream stream_;
    };

    // Runs on a thread per connection. The connection is closed when it returns.
    using Script = std::function<void(Connection&)>;

    explicit ScriptedServer(Script script)
        : script_(std::move(script)), port_(listener_.local_endpoint().port()) {}
    ~ScriptedServer() {
        ::shutdown(listener_.native_handle(), SHUT_RDWR);
        acceptor_.join();
        for (Peer& peer : peers_)
            peer.connection.end();
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    uint16_t port() const { return port_; }
    std::string url(std::string_view path = "/") const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }
    size_t connections() const {
        const std::lock_guard lock(mutex_);
        return accepted_;
    }

  private:
    struct Peer {
        Connection connection;
        bool hasEnded = false;
        std::jthread thread = {};  // the first to go
    };

    void acceptAll() {
        for (asio::error_code ended;;) {
            asio::ip::tcp::socket socket = listener_.accept(ended);
            if (ended) return;
            const std::lock_guard lock(mutex_);
            peers_.remove_if([](const Peer& each) { return each.hasEnded; });
            Peer& peer = peers_.emplace_back(Peer{Connection(std::move(socket))});
            ++accepted_;
            peer.thread = std::jthread([this, &peer] {
                script_(peer.connection);
                peer.connection.end();
                const std::lock_guard atEnd(mutex_);
                peer.hasEnded = true;
            });
        }
    }

    const Script script_;
    asio::io_context context_;
    asio::ip::tcp::acceptor listener_{context_, {asio::ip::address_v4::loopback(), 0}};
    const uint16_t port_;
    mutable std::mutex mutex_;
    std::list<Peer> peers_;
    size_t accepted_ = 0;
    std::thread acceptor_{[this] { acceptAll(); }};
};

}  // namespace telvora::test
