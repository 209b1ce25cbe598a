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
    std::erase_if(kept_, [socket](const auto& entry) { return entry.second == socket; });
}

void CurlConnections::keep(const Name& name) {
    if (name == Name() || kept_.contains(name)) return;
    const auto socket = std::find_if(unnamed_.begin(), unnamed_.end(),
                                     [&name](int each) { return localPort(each) == std::get<2>(name); });
    if (socket == unnamed_.end()) return;
    kept_.emplace(name, *socket);
    unnamed_.erase(socket);
}

bool CurlConnections::hasInput(const Name& name) const {
    char byte;
    return recv(kept_.at(name), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 ||
           (errno != EAGAIN && errno != EWOULDBLOCK);
}

}  // namespace telvora
