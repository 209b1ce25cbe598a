// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_query.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bus/authentication.h"
#include "bus/bus_input.h"
#include "util/error_text.h"

namespace telvora {

namespace {

using Kind = BusQueryFailure::Kind;
using Deadline = std::chrono::steady_clock::time_point;
template <typename T>
using Result = tl::expected<T, BusQueryFailure>;

constexpr size_t kMaxAnswer = size_t{16} << 20;
constexpr uint32_t kSerial = 1;

tl::unexpected<BusQueryFailure> failure(Kind kind, std::string message) {
    return tl::unexpected(BusQueryFailure{kind, std::move(message)});
}

tl::unexpected<BusQueryFailure> lost(int error) {
    return failure(Kind::kUnreachable, errorText(error));
}

Result<UniqueFd> connectTo(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto failed = [&](int error) {
        return failure(Kind::kUnreachable, connectErrorText(socketPath, error));
    };
    if (socketPath.size() >= sizeof address.sun_path) return failed(ENAMETOOLONG);
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return failed(errno);
    return socket;
}

Result<void> waitFor(int socket, short events, Deadline deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waiting{socket, events, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    if (ready < 0 && errno != EINTR) return lost(errno);
    if (ready == 0) return failure(Kind::kNoAnswer, "no answer in time");
    return {};
}

Result<void> sendAll(int socket, std::string_view bytes, Deadline deadline) {
    while (!bytes.empty()) {
        const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else if (errno != EAGAIN && errno != EINTR) {
            return lost(errno);
        } else if (auto ready = waitFor(socket, POLLOUT, deadline); !ready) {
            return ready;
        }
    }
    return {};
}

// Takes the answer to the call out of the input, if it is there.
tl::expected<bool, std::string> takeAnswer(ClientAuthentication& authentication, bool& authenticated,
                                           BusInput& input, MessageView& answer) {
    if (!authenticated) {
        std::string_view bytes = input.bytes();
        const size_t before = bytes.size();
        const AuthenticationState state = authentication.advance(bytes);
        input.take(before - bytes.size());
        if (state == AuthenticationState::failed) return tl::unexpected(std::string(authentication.reason()));
        authenticated = state == AuthenticationState::done;
    }
    while (authenticated) {
        const auto bytes = input.nextMessage();
        if (!bytes) return tl::unexpected(std::string(bytes.error()));
        if (!*bytes) break;
        const auto view = parseMessage(**bytes, 0);
        if (!view) return tl::unexpected(std::string(view.error()));
        if (!*view || (*view)->replySerial != kSerial) continue;
        answer = **view;
        return true;
    }
    return false;
}

}  // namespace

Result<void> callAndWait(const BusQuery& query, const std::function<void(BusMessage& answer)>& read) {
    const Deadline deadline = std::chrono::steady_clock::now() + query.timeout;
    auto socket = connectTo(query.socketPath);
    if (!socket) return tl::unexpected(socket.error());

    std::string call(ClientAuthentication::greeting());
    MessageView header;
    header.type = MessageType::methodCall;
    header.serial = kSerial;
    header.path = query.path;
    header.interface = query.interface;
    header.member = query.method;
    header.signature = query.signature;
    WireWriter writer(call, header);
    if ((query.write && !query.write(writer)) || !writer.finish(kMaxAnswer))
        return failure(Kind::kRefused, "the arguments can't be sent");
    if (auto sent = sendAll(socket->get(), call, deadline); !sent) return sent;

    ClientAuthentication authentication;
    bool authenticated = false;
    BusInput input(kMaxAnswer);
    for (;;) {
        const auto received = input.receive(socket->get());
        if (!received) return failure(Kind::kUnreachable, received.error());
        if (*received == BusInput::Received::end) return lost(ECONNRESET);
        MessageView view;
        const auto found = takeAnswer(authentication, authenticated, input, view);
        if (!found) return failure(Kind::kUnreachable, found.error());
        if (*found) {
            BusMessage answer(view, {});
            if (const auto error = answer.error())
                return failure(Kind::kRefused, error->message.empty() ? error->name : error->message);
            read(answer);
            return {};
        }
        input.keepRest();
        if (auto ready = waitFor(socket->get(), POLLIN, deadline); !ready) return ready;
    }
}

}  // namespace telvora
