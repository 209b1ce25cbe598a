// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_query.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "bus/connect_socket.h"
#include "util/error_text.h"

namespace telvora {

namespace {

using Kind = BusQueryFailure::Kind;
using Deadline = std::optional<std::chrono::steady_clock::time_point>;
template <typename T>
using Result = tl::expected<T, BusQueryFailure>;

constexpr size_t kMaxAnswer = size_t{16} << 20;

tl::unexpected<BusQueryFailure> failure(Kind kind, std::string message) {
    return tl::unexpected(BusQueryFailure{kind, std::move(message)});
}

tl::unexpected<BusQueryFailure> lost(int error) {
    if (error != EPIPE && error != ECONNRESET) return failure(Kind::kUnreachable, errorText(error));
    return failure(Kind::kUnreachable,
                   "the daemon closed the connection: it ends, or this user has too many connections "
                   "(maxConnectionsPerUser)");
}

Result<void> waitFor(int socket, short events, Deadline deadline) {
    int timeout = -1;
    if (deadline) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
        timeout = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    pollfd waiting{socket, events, 0};
    const int ready = poll(&waiting, 1, timeout);
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

}  // namespace

BusQueryConnection::BusQueryConnection(UniqueFd socket) : socket_(std::move(socket)), input_(kMaxAnswer) {}

Result<std::unique_ptr<BusQueryConnection>> BusQueryConnection::connect(const std::string& socketPath) {
    auto socket = connectToSocket(socketPath, FullBacklog::kFails);
    if (!socket) return failure(Kind::kUnreachable, socket.error());
    return std::unique_ptr<BusQueryConnection>(new BusQueryConnection(std::move(*socket)));
}

// Takes the answer to the last call out of the input, if it is there.
tl::expected<bool, std::string> BusQueryConnection::takeAnswer(MessageView& answer) {
    if (!authenticated_) {
        std::string_view bytes = input_.bytes();
        const size_t before = bytes.size();
        const AuthenticationState state = authentication_.advance(bytes);
        input_.take(before - bytes.size());
        if (state == AuthenticationState::failed)
            return tl::unexpected(std::string(authentication_.reason()));
        authenticated_ = state == AuthenticationState::done;
    }
    while (authenticated_) {
        const auto bytes = input_.nextMessage();
        if (!bytes) return tl::unexpected(std::string(bytes.error()));
        if (!*bytes) break;
        const auto view = parseMessage(**bytes, 0);
        if (!view) return tl::unexpected(std::string(view.error()));
        if (!*view || (*view)->replySerial != serial_) continue;
        answer = **view;
        return true;
    }
    return false;
}

Result<void> BusQueryConnection::call(const BusQuery& query,
                                      const std::function<void(BusMessage& answer)>& read) {
    Deadline deadline;
    if (query.timeout) deadline = std::chrono::steady_clock::now() + *query.timeout;

    std::string call;
    if (serial_ == 0) call = ClientAuthentication::greeting(kTakesDescriptors);
    MessageView header;
    header.type = MessageType::methodCall;
    header.serial = ++serial_;
    header.path = query.path;
    header.interface = query.interface;
    header.member = query.method;
    header.signature = query.signature;
    WireWriter writer(call, header);
    if ((query.write && !query.write(writer)) || !writer.finish(kMaxAnswer))
        return failure(Kind::kRefused, "the arguments can't be sent");
    if (auto sent = sendAll(socket_.get(), call, deadline); !sent) return sent;

    for (;;) {
        const auto received = input_.receive(socket_.get());
        if (!received) return failure(Kind::kUnreachable, received.error());
        if (*received == BusInput::Received::end) return lost(ECONNRESET);
        MessageView view;
        const auto found = takeAnswer(view);
        if (!found) return failure(Kind::kUnreachable, found.error());
        if (*found) {
            BusMessage answer(view, {});
            if (const auto error = answer.error())
                return failure(Kind::kRefused, error->message.empty() ? error->name : error->message);
            read(answer);
            input_.keepRest();
            return {};
        }
        input_.keepRest();
        if (auto ready = waitFor(socket_.get(), POLLIN, deadline); !ready) return ready;
    }
}

}  // namespace telvora
