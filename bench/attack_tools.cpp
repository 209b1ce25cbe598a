// SPDX-License-Identifier: Apache-2.0
#include "attack_tools.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "bus/authentication.h"
#include "protocol/client_session_interface.h"
#include "telvora/keys.h"
#include "tests/support/await.h"
#include "wire/wire_writer.h"

namespace telvora::bench {

UniqueFd rawConnection(const std::string& socketPath) {
    sockaddr_un address{AF_UNIX, {}};
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        connection.reset();
    return connection;
}

UniqueFd authenticatedConnection(const std::string& socketPath) {
    UniqueFd connection = rawConnection(socketPath);
    ClientAuthentication authentication;
    std::string answers;
    std::string_view unread;
    if (!connection || !sendAll(connection, ClientAuthentication::greeting())) return {};
    for (auto state = AuthenticationState::running; state == AuthenticationState::running;) {
        char part[512];
        const ssize_t got = recv(connection.get(), part, sizeof part, 0);
        if (got <= 0) return {};
        answers = std::string(unread).append(part, static_cast<size_t>(got));
        unread = answers;
        state = authentication.advance(unread);
        if (state == AuthenticationState::failed) return {};
    }
    return connection;
}

std::string callWithText(size_t size) {
    std::string bytes;
    MessageView header;
    header.type = MessageType::methodCall;
    header.serial = 1;
    header.path = kTelvoradPath;
    header.interface = ClientSessionInterface::kWireName;
    header.member = "FinishSession";
    header.signature = "s";
    WireWriter writer(bytes, header);
    writer.append(std::string(size, 'x'));
    writer.finish(size_t{1} << 27);
    return bytes;
}

bool sendAll(const UniqueFd& connection, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

HostileSession::HostileSession(ClientRuntime& runtime, const std::string& socketPath, int64_t clientType,
                               Dictionary moreInfo, std::string clientName) {
    auto connected = ClientSession::connect(runtime, socketPath);
    if (!connected) throw std::runtime_error(connected.error());
    session_ = std::move(*connected);
    moreInfo.merge({{kTelvoraSessionInfoClientType, clientType},
                    {kTelvoraSessionInfoSessionID, 1},
                    {kTelvoraSessionInfoRequireUserInfo, true}});
    session_->setSessionInfo(moreInfo,
                             Dictionary{{kTelvoraUserInfoClientName, std::move(clientName)},
                                        {kTelvoraUserInfoServiceName, "attack"}},
                             {}, {});
}

void HostileSession::waitUntilConfigured() {
    test::await<ReportingStates>([&](auto done) { session_->startConfig(std::move(done)); });
}

void repeat(size_t window, const std::function<void(std::function<void(bool)>)>& call) {
    struct State {
        std::mutex lock;
        std::condition_variable changed;
        size_t free;
        bool failed = false;
    };
    const auto state = std::make_shared<State>();
    state->free = window;
    for (;;) {
        std::unique_lock lock(state->lock);
        state->changed.wait(lock, [&] { return state->free > 0 || state->failed; });
        if (state->failed) return;
        --state->free;
        lock.unlock();
        call([state](bool answered) {
            const std::lock_guard held(state->lock);
            ++state->free;
            if (!answered) state->failed = true;
            state->changed.notify_one();
        });
    }
}

void announce() {
    static bool announced = false;
    constexpr std::string_view kLine = "ready\n";
    if (!announced) announced = write(STDOUT_FILENO, kLine.data(), kLine.size()) > 0;
}

void holdForEver() {
    announce();
    for (;;)
        pause();
}

}  // namespace telvora::bench
