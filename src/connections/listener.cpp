// SPDX-License-Identifier: Apache-2.0
#include "connections/listener.h"

#include <sys/socket.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <chrono>

#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr uid_t kUnknownUser = UINT32_MAX;

// Pause before the next accept when the process is out of file descriptors or memory.
constexpr std::chrono::milliseconds kPauseWithoutResources{200};

// Connections that are accepted before the next one is passed on.
constexpr int kMostAtOnce = 64;

}  // namespace

Listener::Listener(asio::io_context& runLoop, UniqueFd socket, DescriptorClosers& closers, Accepted accepted,
                   MayWait mayWait)
    : runLoop_(runLoop),
      closers_(closers),
      accepted_(std::move(accepted)),
      mayWait_(std::move(mayWait)),
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
    users_.clear();
}

// A connection that is not accepted stays with the listening socket, which belongs to the service manager and
// outlives a daemon that ends.
void Listener::acceptNext() {
    acceptor_.async_wait(asio::socket_base::wait_read, [this](asio::error_code error) {
        if (error || !acceptor_.is_open()) return;
        for (int i = 0; i < kMostAtOnce; ++i) {
            if (accept()) continue;
            if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) break;
            TELVORA_LOG(kLogError, "listener: can't accept a connection: %s", errorText(errno).c_str());
            pause_.expires_after(kPauseWithoutResources);
            return pause_.async_wait([this](asio::error_code cancelled) {
                if (!cancelled) acceptNext();
            });
        }
        acceptNext();
    });
}

// Puts the next connection at the end of its user's line. False, with the reason in errno, if there is none.
bool Listener::accept() {
    const int connection = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return false;
    const uid_t user = userOfPeer(connection).value_or(kUnknownUser);
    UniqueFd owned(connection, closers_.of(user));
    auto place = mayWait_(user);
    if (!place) return true;
    if (users_.empty()) asio::post(runLoop_, [this] { passNextOn(); });
    auto line =
        std::find_if(users_.begin(), users_.end(), [user](const Line& known) { return known.user == user; });
    if (line == users_.end()) line = users_.insert(users_.end(), {user, {}});
    line->connections.push_back({std::move(owned), std::move(*place)});
    return true;
}

void Listener::passNextOn() {
    if (users_.empty()) return;  // closed
    Line line = std::move(users_.front());
    users_.pop_front();
    UniqueFd socket = std::move(line.connections.front().socket);
    line.connections.pop_front();               // with its charge
    const bool refused = !mayWait_(line.user);  // as others of the line may have been since
    if (!line.connections.empty()) users_.push_back(std::move(line));
    if (!users_.empty()) asio::post(runLoop_, [this] { passNextOn(); });
    if (refused) return;
    // A connection without a peer has ended again.
    if (const auto peer = readPeer(socket.get())) accepted_(std::move(socket), *peer);
}

}  // namespace telvora
