// SPDX-License-Identifier: Apache-2.0
//
// A plain blocking sd-bus on the caller's thread: nothing of libtelvora, whose faults the tests of the daemon
// must not share.
#include "tests/support/blocking_session.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>

#include "platform/bus_message.h"
#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"
#include "telvora-lab/daemon_process.h"
#include "telvora/keys.h"
#include "util/unique_fd.h"

namespace telvora::test {
namespace {

using lab::kPatience;
using Fill = std::function<void(ArgumentWriter&)>;

UniqueFd connectTo(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path)
        throw std::runtime_error("the socket's path is too long");
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("no connection to " + socketPath);
    }
    return socket;
}

void check(int result, const char* what) {
    if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

Dictionary sessionInfo(const SessionSettings& settings) {
    Dictionary info{{kTelvoraSessionInfoSessionID, settings.sessionID},
                    {kTelvoraSessionInfoClientType, settings.clientType},
                    {kTelvoraSessionInfoClientVersion, settings.clientVersion},
                    {kTelvoraSessionInfoRequireUserInfo, settings.requireUserInfo},
                    {kTelvoraSessionInfoBatchEvent, settings.batchEvents}};
    if (settings.hierarchyToken) info.set(kTelvoraSessionInfoHierarchyToken, *settings.hierarchyToken);
    return info;
}

std::optional<Dictionary> userInfo(const SessionSettings& settings) {
    if (settings.clientName.empty()) return std::nullopt;
    return Dictionary{{kTelvoraUserInfoClientName, settings.clientName},
                      {kTelvoraUserInfoServiceName, settings.serviceName}};
}

std::optional<std::string> readAnswer(BusMessage reply) {
    return ArgumentReader(reply).optionalString();
}

States readStates(BusMessage reply) {
    return ArgumentReader(reply).optionalStrings();
}

FlushAnswer readFlushAnswer(BusMessage reply) {
    ArgumentReader reader(reply);
    auto answer = reader.optionalString();
    return {std::move(answer), reader.optionalError()};
}

}  // namespace

void SessionSettings::setHierarchy(const std::string& token, int64_t level) {
    hierarchyToken = Dictionary{{kTelvoraHierarchyTokenTokenID, token}, {kTelvoraHierarchyTokenLevel, level}};
}

struct BlockingSession::State {
    sd_bus* bus = nullptr;
    SessionSettings settings;
    std::map<uint64_t, BusMessage> replies;  // that came while another was waited for
    std::deque<Delivery> deliveries;         // likewise

    explicit State(const std::string& socketPath) {
        check(sd_bus_new(&bus), "sd_bus_new");
        const int socket = connectTo(socketPath).release();
        check(sd_bus_set_fd(bus, socket, socket), "sd_bus_set_fd");
        check(sd_bus_negotiate_fds(bus, 1), "sd_bus_negotiate_fds");
        check(sd_bus_start(bus), "sd_bus_start");
    }
    ~State() {
        replies.clear();
        sd_bus_flush_close_unref(bus);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    uint64_t send(const char* method, const Fill& fill,
                  const BusInterface& interface = clientSessionBusInterface()) {
        sd_bus_message* message = nullptr;
        check(sd_bus_message_new_method_call(bus, &message, nullptr, kTelvoradPath, interface.name().c_str(),
                                             method),
              method);
        BusMessage call = BusMessage::adopt(message);
        ArgumentWriter writer(call);
        fill(writer);
        check(writer.result(), method);
        uint64_t cookie = 0;
        check(sd_bus_send(bus, call.get(), &cookie), method);
        check(sd_bus_flush(bus), method);
        return cookie;
    }

    void take(BusMessage received) {
        uint64_t answered = 0;
        if (sd_bus_message_get_reply_cookie(received.get(), &answered) >= 0) {
            replies[answered] = std::move(received);
        } else if (sd_bus_message_is_method_call(received.get(), nullptr, "SendMessageToClient") > 0) {
            ArgumentReader in(received);
            Delivery delivery;
            delivery.sessionInfo = in.optionalDictionary();
            delivery.timestamp = in.real();
            delivery.category = in.u16();
            delivery.type = in.u16();
            delivery.payload = in.optionalDictionary();
            if (!in.ok()) throw std::runtime_error(in.failure());
            deliveries.push_back(std::move(delivery));
        }
    }

    void readUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!done()) {
            sd_bus_message* message = nullptr;
            const int result = sd_bus_process(bus, &message);
            check(result, "sd_bus_process");
            if (BusMessage received = BusMessage::adopt(message)) take(std::move(received));
            if (result > 0) continue;
            const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) throw std::runtime_error("no answer came");
            check(sd_bus_wait(bus, static_cast<uint64_t>(left.count())), "sd_bus_wait");
        }
    }

    BusMessage await(uint64_t cookie) {
        BusMessage reply = awaitAny(cookie);
        if (const sd_bus_error* error = reply.error()) throw std::runtime_error(error->name);
        return reply;
    }

    // The answer, which may be an error.
    BusMessage awaitAny(uint64_t cookie) {
        readUntil([&] { return replies.contains(cookie); });
        BusMessage reply = std::move(replies[cookie]);
        replies.erase(cookie);
        return reply;
    }

    BusMessage call(
        const char* method, const Fill& fill = [](ArgumentWriter&) {}) {
        return await(send(method, fill));
    }
};

BlockingSession::BlockingSession(const std::string& socketPath, const SessionSettings& settings)
    : state_(std::make_unique<State>(socketPath)) {
    setSessionInfo(settings);
}

void BlockingSession::setSessionInfo(const SessionSettings& settings) {
    state_->settings = settings;
    state_->call("SetSessionInfo", [&](ArgumentWriter& arguments) {
        arguments.dictionary(sessionInfo(settings));
        arguments.optionalDictionary(userInfo(settings));
        arguments.strings({});
        arguments.boolean(settings.aggregates);
    });
}

BlockingSession::~BlockingSession() = default;

States BlockingSession::startConfig() {
    return beginStartConfig()();
}

std::function<States()> BlockingSession::beginStartConfig() {
    const uint64_t cookie = state_->send("StartConfig", [](ArgumentWriter&) {});
    return [this, cookie] { return readStates(state_->await(cookie)); };
}

States BlockingSession::fetchStates() {
    return readStates(state_->call("FetchStates", [this](ArgumentWriter& arguments) {
        arguments.optionalDictionary(userInfo(state_->settings));
    }));
}

std::optional<std::string> BlockingSession::send(uint16_t category, uint16_t type,
                                                 const Dictionary& payload) {
    return readAnswer(state_->call("SendMessageWithCategory", [&](ArgumentWriter& arguments) {
        arguments.u16(category);
        arguments.u16(type);
        arguments.optionalDictionary(payload);
    }));
}

std::optional<std::string> BlockingSession::send(uint16_t category, uint16_t type, const Dictionary& payload,
                                                 int64_t flag) {
    return readAnswer(state_->call("SendMessageWithDictionary", [&](ArgumentWriter& arguments) {
        arguments.dictionary({{kTelvoraMessageParametersCategory, int64_t{category}},
                              {kTelvoraMessageParametersType, int64_t{type}},
                              {kTelvoraMessageParametersPayload, payload},
                              {kTelvoraMessageParametersFlag, flag}});
    }));
}

FlushAnswer BlockingSession::flush() {
    return beginFlush()();
}

std::function<FlushAnswer()> BlockingSession::beginFlush() {
    const uint64_t cookie = state_->send("FlushMessages", [](ArgumentWriter&) {});
    return [this, cookie] { return readFlushAnswer(state_->await(cookie)); };
}

std::optional<std::string> BlockingSession::finish() {
    return readAnswer(state_->call("FinishSession"));
}

Delivery BlockingSession::nextDelivery() {
    state_->readUntil([this] { return !state_->deliveries.empty(); });
    Delivery delivery = std::move(state_->deliveries.front());
    state_->deliveries.pop_front();
    return delivery;
}

size_t BlockingSession::unclaimedAnswers() const {
    return state_->replies.size();
}

std::string BlockingSession::displayURL() {
    BusMessage reply = state_->call("FetchDisplayURL");
    return ArgumentReader(reply).string();
}

UploadAnswer BlockingSession::uploadLogData(const Array& records) {
    BusMessage reply =
        state_->call("UploadLogData", [&records](ArgumentWriter& arguments) { arguments.array(records); });
    ArgumentReader reader(reply);
    const bool uploaded = reader.boolean();
    return {uploaded, reader.optionalError()};
}

tl::expected<std::string, std::string> BlockingSession::issueFileExtension(const std::string& path,
                                                                           int file) {
    const uint64_t cookie = state_->send(
        "IssueFileExtension",
        [&](ArgumentWriter& arguments) {
            arguments.string(path);
            arguments.file(file);
        },
        sandboxExtensionBusInterface());
    BusMessage reply = state_->awaitAny(cookie);
    if (const sd_bus_error* error = reply.error()) return tl::unexpected(std::string(error->message));
    return ArgumentReader(reply).string();
}

bool BlockingSession::uploadFile(const std::string& url, const std::string& extensionToken) {
    return beginUploadFile(url, extensionToken)();
}

std::function<bool()> BlockingSession::beginUploadFile(const std::string& url,
                                                       const std::string& extensionToken) {
    const uint64_t cookie = state_->send("UploadFileAtPath", [&](ArgumentWriter& arguments) {
        arguments.string(url);
        arguments.string(extensionToken);
    });
    return [this, cookie] {
        BusMessage reply = state_->await(cookie);
        return ArgumentReader(reply).boolean();
    };
}

}  // namespace telvora::test
