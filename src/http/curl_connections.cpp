// SPDX-License-Identifier: Apache-2.0
#include "http/curl_connections.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace telvora {

namespace {

// 0 if the socket has none.
int localPort(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
    // Both families have the port at the same place.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

}  // namespace

void CurlConnections::closing(int socket) {
    std::erase(unnamed_, socket);
    std::erase_if(kept_, [socket](const auto& entry) { return entry.second.socket == socket; });
}

void CurlConnections::keep(const Name& name) {
    if (name == Name() || kept_.contains(name)) return;
    const auto socket = std::find_if(unnamed_.begin(), unnamed_.end(),
                                     [&name](int each) { return localPort(each) == std::get<2>(name); });
    if (socket == unnamed_.end()) return;
    kept_.emplace(name, Kept{.socket = *socket});
    unnamed_.erase(socket);
}

void CurlConnections::limitIdleTime(const Name& name, std::chrono::seconds limit) {
    const auto connection = kept_.find(name);
    // The peer's clock started earlier, and a request needs time to arrive.
    if (connection != kept_.end())
        connection->second.usableIdleTime = std::chrono::milliseconds(limit) * 3 / 4;
}

void CurlConnections::released(const Name& name) {
    const auto connection = kept_.find(name);
    if (connection != kept_.end()) connection->second.released = std::chrono::steady_clock::now();
}

bool CurlConnections::isAtItsEnd(const Name& name) const {
    const Kept& connection = kept_.at(name);
    if (std::chrono::steady_clock::now() - connection.released >= connection.usableIdleTime) return true;
    char byte;
    return recv(connection.socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 ||
           (errno != EAGAIN && errno != EWOULDBLOCK);
}

}  // namespace telvora
