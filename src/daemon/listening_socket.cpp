// SPDX-License-Identifier: Apache-2.0
#include "daemon/listening_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include "protocol/status_interface.h"
#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr mode_t kOpenToAll = 0666;

tl::unexpected<std::string> failure(const std::string& context, int error = errno) {
    return tl::unexpected(errorText(context, error));
}

tl::expected<ListeningSocket, std::string> adopt(UniqueFd socket) {
    if (sd_is_socket_unix(socket.get(), SOCK_STREAM, 1, nullptr, 0) <= 0) {
        return tl::unexpected(std::string("the service manager handed over no listening Unix stream socket"));
    }
    const int flags = fcntl(socket.get(), F_GETFL);
    if (flags < 0 || fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        return failure("can't set the socket up");
    }
    ListeningSocket result;
    result.socket = std::move(socket);
    result.fromServiceManager = true;
    return result;
}

struct FreeNames {
    void operator()(char** names) const {
        for (char** name = names; name != nullptr && *name != nullptr; ++name)
            free(*name);
        free(names);
    }
};

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
    char** given = nullptr;
    const int count = sd_listen_fds_with_names(1, &given);
    const std::unique_ptr<char*, FreeNames> names(given);
    if (count < 0) return failure("can't tell what the service manager handed over", -count);
    HandedOverSockets sockets;
    for (int i = 0; i < count; ++i) {
        auto adopted = adopt(UniqueFd(SD_LISTEN_FDS_START + i));  // close-on-exec by now
        if (!adopted) return tl::unexpected(adopted.error());
        std::optional<ListeningSocket>& place = given[i] == otherName ? sockets.other : sockets.main;
        if (place) {
            return tl::unexpected("the service manager handed over " + std::to_string(count) +
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
