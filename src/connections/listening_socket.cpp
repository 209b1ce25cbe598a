// SPDX-License-Identifier: Apache-2.0
#include "connections/listening_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "async/descriptor_closers.h"
#include "protocol/status_interface.h"
#include "util/ascii.h"
#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr mode_t kOpenToAll = 0666;
// Of the service manager.
constexpr int kFirstDescriptor = 3;
constexpr size_t kMaxDescriptors = 16;

tl::unexpected<std::string> failure(const std::string& context, int error = errno) {
    return tl::unexpected(errorText(context, error));
}

std::optional<int> socketOption(int socket, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    if (getsockopt(socket, SOL_SOCKET, option, &value, &size) != 0) return std::nullopt;
    return value;
}

tl::expected<ListeningSocket, std::string> adopt(UniqueFd socket) {
    if (socketOption(socket.get(), SO_DOMAIN) != AF_UNIX ||
        socketOption(socket.get(), SO_TYPE) != SOCK_STREAM ||
        socketOption(socket.get(), SO_ACCEPTCONN) != 1) {
        return tl::unexpected(std::string("the service manager handed over no listening Unix stream socket"));
    }
    const int flags = fcntl(socket.get(), F_GETFL);
    if (flags < 0 || fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0 ||
        fcntl(socket.get(), F_SETFD, FD_CLOEXEC) != 0) {
        return failure("can't set the socket up");
    }
    passDescriptors(socket.get(), false);
    ListeningSocket result;
    result.socket = std::move(socket);
    result.fromServiceManager = true;
    return result;
}

// The names of the descriptors that were handed over, kFirstDescriptor and the next ones; sd_listen_fds(3).
// The variables are for this process alone, so they go.
std::vector<std::string> takeDescriptorNames() {
    const auto take = [](const char* variable) {
        const char* const value = std::getenv(variable);
        std::string text = value != nullptr ? value : "";
        unsetenv(variable);
        return text;
    };
    const std::string process = take("LISTEN_PID");
    const std::string count = take("LISTEN_FDS");
    const std::string names = take("LISTEN_FDNAMES");
    if (process != std::to_string(getpid())) return {};
    std::vector<std::string> result(
        std::min<size_t>(std::strtoul(count.c_str(), nullptr, 10), kMaxDescriptors));
    std::string_view rest = names;
    for (std::string& name : result)
        name = takePart(rest, ':');
    return result;
}

std::optional<sockaddr_un> addressOf(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string& name = path.native();
    if (name.size() >= sizeof address.sun_path) return std::nullopt;
    name.copy(address.sun_path, name.size());
    return address;
}

UniqueFd makeSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// Removes the socket of a dead process: it refuses connections.
tl::expected<void, std::string> removeStale(const std::filesystem::path& path, const sockaddr_un& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return {};
        return failure(path.native());
    }
    if (!S_ISSOCK(status.st_mode)) return tl::unexpected(path.native() + ": is there and is no socket");
    const UniqueFd probe = makeSocket();
    if (!probe) return failure("can't make a socket");
    if (connect(probe.get(), generic(address), sizeof address) == 0 || errno != ECONNREFUSED) {
        return tl::unexpected(path.native() + ": in use");
    }
    if (unlink(path.c_str()) != 0) return failure("can't remove " + path.native());
    return {};
}

}  // namespace

ListeningSocket::~ListeningSocket() {
    struct stat ours {};
    struct stat there {};
    if (!file_ || fstat(file_.get(), &ours) != 0 || lstat(path_.c_str(), &there) != 0) return;
    if (ours.st_dev == there.st_dev && ours.st_ino == there.st_ino) unlink(path_.c_str());
}

tl::expected<HandedOverSockets, std::string> takeHandedOverSockets(const std::string& otherName) {
    const std::vector<std::string> names = takeDescriptorNames();
    HandedOverSockets sockets;
    for (size_t i = 0; i < names.size(); ++i) {
        auto adopted = adopt(UniqueFd(kFirstDescriptor + static_cast<int>(i)));
        if (!adopted) return tl::unexpected(adopted.error());
        std::optional<ListeningSocket>& place = names[i] == otherName ? sockets.other : sockets.main;
        if (place) {
            return tl::unexpected("the service manager handed over " + std::to_string(names.size()) +
                                  " descriptors, two of them for the same");
        }
        place.emplace(std::move(*adopted));
    }
    return sockets;
}

tl::expected<ListeningSocket, std::string> makeListeningSocket(const std::filesystem::path& path) {
    const auto address = addressOf(path);
    if (!address) return tl::unexpected(path.native() + ": too long for the name of a socket");
    if (auto removed = removeStale(path, *address); !removed) return tl::unexpected(removed.error());
    ListeningSocket result;
    result.socket = makeSocket();
    if (!result.socket) return failure("can't make a socket");
    passDescriptors(result.socket.get(), false);
    if (bind(result.socket.get(), generic(*address), sizeof *address) != 0) {
        return failure("can't bind " + path.native());
    }
    result.path_ = path;
    result.file_.reset(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!result.file_) return failure(path.native());
    if (chmod(path.c_str(), kOpenToAll) != 0) return failure("can't open " + path.native() + " to all");
    if (listen(result.socket.get(), SOMAXCONN) != 0) return failure("can't listen on " + path.native());
    return result;
}

tl::expected<Sockets, std::string> openSockets(const std::filesystem::path& runtimeDirectory) {
    auto handedOver = takeHandedOverSockets(kTelvoradStatusSocketName);
    if (!handedOver) return tl::unexpected(handedOver.error());
    if (!handedOver->main) {
        auto made = makeListeningSocket(runtimeDirectory / kTelvoradSocketName);
        if (!made) return tl::unexpected(made.error());
        handedOver->main.emplace(std::move(*made));
    }
    if (!handedOver->other) {
        auto made = makeListeningSocket(runtimeDirectory / kTelvoradStatusSocketName);
        if (made) {
            handedOver->other.emplace(std::move(*made));
        } else {
            TELVORA_LOG(kLogWarning, "main: no status for administrators: %s", made.error().c_str());
        }
    }
    return Sockets{std::move(*handedOver->main), std::move(handedOver->other)};
}

}  // namespace telvora
