// SPDX-License-Identifier: Apache-2.0
#include "bus/connect_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>

#include "util/error_text.h"

namespace telvora {

tl::expected<UniqueFd, std::string> connectToSocket(const std::string& path, FullBacklog fullBacklog) {
    const auto failure = [&path](int error) { return tl::unexpected(connectErrorText(path, error)); };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return failure(ENAMETOOLONG);
    path.copy(address.sun_path, sizeof address.sun_path - 1);

    const int nonBlocking = fullBacklog == FullBacklog::kFails ? SOCK_NONBLOCK : 0;
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | nonBlocking, 0));
    if (!socket) return failure(errno);
    int result = 0;
    do {
        result = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0) return failure(errno);
    return socket;
}

}  // namespace telvora
