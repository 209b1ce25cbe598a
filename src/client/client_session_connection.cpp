// SPDX-License-Identifier: Apache-2.0
#include "client/client_session_connection.h"

#include "protocol/client_session_wire.h"
#include "util/log.h"

namespace telvora {

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
    if (!invalidated_ && handlers_.connectionLost) handlers_.connectionLost(reason);
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
