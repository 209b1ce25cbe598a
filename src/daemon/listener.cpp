// SPDX-License-Identifier: Apache-2.0
#include "daemon/listener.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr uid_t kUnknownUser = UINT32_MAX;

// Pause before the next accept when the process is out of file descriptors or memory.
constexpr std::chrono::milliseconds kPauseWithoutResources{200};

}  // namespace

Listener::Listener(asio::io_context& runLoop, UniqueFd socket, DescriptorClosers& closers, Accepted accepted,
                   Refused refused)
    : closers_(closers),
      accepted_(std::move(accepted)),
      refused_(std::move(refused)),
      acceptor_(runLoop),
      pause_(runLoop) {
    asio::error_code error;
    acceptor_.assign(asio::local::stream_protocol(), socket.get(), error);
    if (error) {
        TELVORA_LOG(kLogError, "listener: can't use the listening socket: %s", error.message().c_str());
        return;
    }
    socket.release();
}

void Listener::resume() {
    acceptNext();
}

void Listener::close() {
    asio::error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
}

// A connection is accepted only when it is passed on. Until then it stays with the listening socket, which
// belongs to the service manager and outlives a daemon that ends.
void Listener::acceptNext() {
    acceptor_.async_wait(asio::socket_base::wait_read, [this](asio::error_code error) {
        if (error || !acceptor_.is_open()) return;
        if (accept()) return acceptNext();
        pause_.expires_after(kPauseWithoutResources);
        pause_.async_wait([this](asio::error_code cancelled) {
            if (!cancelled) acceptNext();
        });
    });
}

// False if the process is out of resources.
bool Listener::accept() {
    const int connection = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED)) return true;
    if (connection < 0) {
        TELVORA_LOG(kLogError, "listener: can't accept a connection: %s", errorText(errno).c_str());
        return false;
    }
    const uid_t user = userOfPeer(connection).value_or(kUnknownUser);
    UniqueFd owned(connection, closers_.of(user));
    // A connection without a peer has ended again.
    const auto peer = refused_ && refused_(user) ? std::nullopt : readPeer(connection);
    if (peer) accepted_(std::move(owned), *peer);
    return true;
}

}  // namespace telvora
