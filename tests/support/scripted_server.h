// SPDX-License-Identifier: Apache-2.0
//
// A TCP server on 127.0.0.1 whose connections do exactly what a test says, byte by byte: for answers that no
// decent server would give.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "util/unique_fd.h"

namespace telvora::test {

class ScriptedServer {
  public:
    // One accepted connection, for its script. All operations return at the peer's end or the server's.
    class Connection {
      public:
        explicit Connection(int fd) : fd_(fd) {}

        // One HTTP request: its head and as much body as Content-Length says; "" when the peer has gone.
        std::string readRequest() {
            size_t headEnd;
            while ((headEnd = received_.find("\r\n\r\n")) == std::string::npos) {
                if (!receive()) return {};
            }
            const size_t size = headEnd + 4 + contentLength(received_.substr(0, headEnd));
            while (received_.size() < size) {
                if (!receive()) return {};
            }
            std::string request = received_.substr(0, size);
            received_.erase(0, size);
            return request;
        }
        void send(std::string_view text) {
            while (!text.empty()) {
                const ssize_t sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
                if (sent <= 0) return;
                text.remove_prefix(static_cast<size_t>(sent));
            }
        }
        // Waits for more of a request; false when the peer has gone.
        bool readSome() { return receive(); }
        void waitForClose() {
            while (receive()) {
            }
        }

      private:
        bool receive() {
            char buffer[16384];
            const ssize_t size = recv(fd_, buffer, sizeof buffer, 0);
            if (size > 0) received_.append(buffer, static_cast<size_t>(size));
            return size > 0;
        }
        static size_t contentLength(const std::string& head) {
            constexpr std::string_view kName = "Content-Length: ";
            const size_t at = head.find(kName);
            return at == std::string::npos ? 0 : std::stoul(head.substr(at + kName.size()));
        }

        int fd_;
        std::string received_;
    };

    // Runs on a thread per connection; the connection is closed when it returns.
    using Script = std::function<void(Connection&)>;

    explicit ScriptedServer(Script script) : script_(std::move(script)) {
        listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_.get(), generic, length) != 0 || listen(listener_.get(), 128) != 0 ||
            getsockname(listener_.get(), generic, &length) != 0) {
            std::abort();
        }
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { acceptAll(); });
    }
    ~ScriptedServer() {
        shutdown(listener_.get(), SHUT_RDWR);
        acceptor_.join();
        const std::lock_guard lock(mutex_);
        for (auto& peer : peers_)
            shutdown(peer.fd.get(), SHUT_RDWR);
        for (auto& peer : peers_)
            peer.thread.join();
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
        UniqueFd fd;
        std::thread thread;
    };

    void acceptAll() {
        for (;;) {
            UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) return;
            const std::lock_guard lock(mutex_);
            Peer& peer = peers_.emplace_back();
            peer.fd = std::move(fd);
            peer.thread = std::thread([this, number = peer.fd.get()] {
                Connection connection(number);
                script_(connection);
                shutdown(number, SHUT_RDWR);
            });
        }
    }

    Script script_;
    UniqueFd listener_;
    uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::list<Peer> peers_;
    std::thread acceptor_;
};

}  // namespace telvora::test
