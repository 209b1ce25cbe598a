// SPDX-License-Identifier: Apache-2.0
#include "daemon/listener.h"

#include <chrono>

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

void Listener::acceptNext() {
    acceptor_.async_accept([this](asio::error_code error, asio::local::stream_protocol::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor_.is_open()) return;
        if (!error) {
            const int connection = socket.release(error);
            const uid_t user = userOfPeer(connection).value_or(kUnknownUser);
            UniqueFd owned(connection, closers_.of(user));
            // A connection without a peer has ended again.
            const auto peer = refused_ && refused_(user) ? std::nullopt : readPeer(connection);
            if (peer) accepted_(std::move(owned), *peer);
            return acceptNext();
        }
        TELVORA_LOG(kLogError, "listener: can't accept a connection: %s", error.message().c_str());
        pause_.expires_after(kPauseWithoutResources);
        pause_.async_wait([this](asio::error_code cancelled) {
            if (!cancelled) acceptNext();
        });
    });
}

}  // namespace telvora
