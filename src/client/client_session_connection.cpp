// SPDX-License-Identifier: Apache-2.0
#include "client/client_session_connection.h"

#include "util/log.h"

namespace telvora {

namespace {

// How the daemon turns a client away.
constexpr char kTurnedAway[] =
    "the daemon closed the connection without an answer: most likely this program is not entitled (telvorad.entitlements(5)), or its user has too many connections (telvorad.defaults(5))";

}  // namespace

tl::expected<void, std::string> ClientSession::Connection::start(UniqueFd socket) {
    const auto bus = BusConnection::make(strand_, std::move(socket), BusRole::kClient);
    if (!bus) return tl::unexpected(bus.error());
    const auto exported =
        (*bus)->exportInterface(kTelvoradClientPath, clientSessionReplyBusInterface(),
                                {[this](BusMessage& call) { return messageToClient(call); }});
    if (!exported) return exported;
    bus_ = bus->get();
    bus_->start([self = shared_from_this()](const std::string& reason) { self->ended(reason); });
    return {};
}

void ClientSession::Connection::invalidate() {
    asio::post(strand_, [self = shared_from_this()] {
        self->invalidated_ = true;
        if (self->bus_ != nullptr) self->bus_->close("invalidated");
    });
}

void ClientSession::Connection::ended(const std::string& reason) {
    bus_ = nullptr;
    const bool turnedAway = !answered_ && !invalidated_;
    if (turnedAway) *loss_ = kTurnedAway;
    if (!invalidated_ && handlers_.connectionLost) handlers_.connectionLost(turnedAway ? *loss_ : reason);
}

void ClientSession::Connection::flush(Completion<FlushAnswer> completion) {
    const auto number = std::make_shared<size_t>(0);
    const std::weak_ptr<FlushWatch::Flush> flush = call<FlushAnswer>(
        clientSessionBusInterface(), static_cast<size_t>(SessionMethod::kFlushMessages),
        [self = shared_from_this(), number](ArgumentWriter&) { *number = self->flushes_.newestStates(); },
        [](ArgumentReader& in) {
            FlushAnswer answer;
            answer.answer = in.optionalString();
            answer.error = in.optionalError();
            return answer;
        },
        std::move(completion));
    asio::post(strand_, [self = shared_from_this(), number, flush] {
        self->flushes_.add(flush, *number);
        self->probeFlushes();
    });
}

void ClientSession::Connection::probeFlushes() {
    if (followsParent_) return;
    FlushWatch::Suspects suspects = flushes_.takeSuspects();
    if (suspects.empty()) return;
    call<std::string>(
        clientSessionBusInterface(), static_cast<size_t>(SessionMethod::kFetchDisplayURL),
        [](ArgumentWriter&) {}, [](ArgumentReader& in) { return in.string(); },
        [suspects = std::move(suspects)](const auto& answer) {
            if (answer) FlushWatch::convict(suspects);
        });
}

BusMessage ClientSession::Connection::newCall(const BusInterface& interface, size_t method) {
    if (bus_ == nullptr) return {};
    return bus_->newCall(kTelvoradPath, interface.name().c_str(), interface.methods()[method].name.c_str());
}

// What can't be sent is destroyed, and with it the handler, which tells the caller.
void ClientSession::Connection::send(BusMessage message, BusConnection::ReplyHandler handler) {
    const auto sent = bus_->call(std::move(message), std::move(handler));
    if (!sent) TELVORA_LOG(kLogDebug, "ClientSession(send): %s", sent.error().c_str());
}

std::optional<BusError> ClientSession::Connection::messageToClient(BusMessage& call) {
    answered_ = true;
    ArgumentReader in(call);
    AggregatedMessage message;
    message.sessionInfo = in.optionalDictionary();
    message.timestamp = in.real();
    message.category = in.u16();
    message.type = in.u16();
    message.payload = in.optionalDictionary();
    if (!in.ok()) return BusError{kBusErrorInvalidArgs, in.failure()};
    if (handlers_.aggregationBlock && !invalidated_) handlers_.aggregationBlock(std::move(message));
    return std::nullopt;
}

std::string ClientSession::Connection::errorText(const BusMessage& reply) {
    const sd_bus_error* error = reply.error();
    const std::string name = error->name != nullptr ? error->name : "error";
    return error->message != nullptr ? name + ": " + error->message : name;
}

}  // namespace telvora
