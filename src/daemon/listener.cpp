// SPDX-License-Identifier: Apache-2.0
#include "daemon/listener.h"

#include <chrono>

#include "daemon/client_connection.h"
#include "platform/peer.h"
#include "util/log.h"

namespace telvora {

namespace {

// How long to leave new connections waiting when the process is out of file descriptors or memory.
constexpr std::chrono::milliseconds kPauseWithoutResources{200};

}  // namespace

Listener::Listener(asio::io_context& runLoop, WorkPool& pool, TelvoradAgent& agent, UniqueFd socket)
    : pool_(pool), agent_(agent), acceptor_(runLoop), pause_(runLoop) {
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
            const int fd = socket.release(error);
            if (!error) accepted(UniqueFd(fd));
            return acceptNext();
        }
        TELVORA_LOG(kLogError, "listener: can't accept a connection: %s", error.message().c_str());
        pause_.expires_after(kPauseWithoutResources);
        pause_.async_wait([this](asio::error_code cancelled) {
            if (!cancelled) acceptNext();
        });
    });
}

void Listener::accepted(UniqueFd socket) {
    const std::optional<Peer> peer = readPeer(socket.get());
    if (!peer) return;  // it has gone again
    const std::string description = "#" + std::to_string(++connectionCount_) + " from " + peer->description();
    const auto connection = ClientConnection::make(pool_.makeStrand(), std::move(socket), description);
    if (!agent_.listener(connection, *peer)) connection->invalidate();
}

}  // namespace telvora
