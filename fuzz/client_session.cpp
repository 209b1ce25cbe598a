// SPDX-License-Identifier: Apache-2.0
//
// The library's end of the bus, with a hostile daemon: it ends with its peer, and each completion runs once.
#include "client/client_session.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <future>
#include <string>

#include "fuzz/target.h"
#include "tests/support/temporary_directory.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.5;

namespace {

constexpr std::string_view kAuthentication =
    "DATA\r\nOK 00000000000000000000000000000000\r\nAGREE_UNIX_FD\r\n";
constexpr size_t kCalls = 6;

struct Daemon {
    Daemon() {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        require(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    listen(listener.get(), 8) == 0,
                "a listener");
    }
    // Writes the answers, and waits for the end of the client's stream.
    void answer(Input input, size_t pieceSize, bool authenticates) {
        const UniqueFd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const auto put = [&](std::string_view bytes) {
            send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        };
        if (authenticates) put(kAuthentication);
        while (!input.empty())
            put(input.take(pieceSize));
        shutdown(peer.get(), SHUT_WR);
        char buffer[4096];
        while (recv(peer.get(), buffer, sizeof buffer, 0) > 0) {
        }
    }

    test::TemporaryDirectory directory;
    std::string path = directory.path() / "socket";
    UniqueFd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

// Counts the completions of one session.
struct Completions : std::enable_shared_from_this<Completions> {
    template <typename T>
    Completion<T> next() {
        return [this, self = shared_from_this(), call = calls++](const tl::expected<T, CallFailure>& answer) {
            require(runs[call]++ == 0, "a completion runs once");
            require(answer || !answer.error().message.empty(), "a failure has a reason");
            if (++done == kCalls) all.set_value();
        };
    }
    size_t calls = 0, done = 0;
    std::array<int, kCalls> runs{};
    std::promise<void> all;
    std::atomic<int> losses = 0;
};

}  // namespace

void tryInput(std::string_view bytes) {
    static Daemon daemon;
    static ClientRuntime runtime;
    Input input(bytes);
    const uint8_t kind = input.byte();
    const auto completions = std::make_shared<Completions>();
    auto session =
        ClientSession::connect(runtime, daemon.path,
                               {.aggregationBlock = [](const AggregatedMessage&) {},
                                .connectionLost =
                                    [completions](const auto&) {
                                        require(completions->losses++ == 0, "a connection is lost once");
                                    }});
    require(session.has_value(), "a session connects");
    ClientSession& calls = **session;
    calls.startConfig(completions->next<ReportingStates>());
    calls.fetchDisplayURL(completions->next<std::string>());
    calls.sendMessage(1, 2, std::nullopt, completions->next<std::optional<std::string>>());
    calls.flushMessages(completions->next<FlushAnswer>());
    calls.uploadLogData({}, completions->next<UploadAnswer>());
    calls.uploadFile("file:///a", "", completions->next<bool>());
    daemon.answer(input, 1 + kind / 2, kind % 2 == 0);
    completions->all.get_future().wait();
}

}  // namespace telvora::fuzz
