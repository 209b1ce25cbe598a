// SPDX-License-Identifier: Apache-2.0
#include "client/client_session_connection.h"

#include "protocol/method_export.h"
#include "util/log.h"

namespace telvora {

namespace {

// The loss reason of a connection that ends without any answer: the daemon refuses a client this way.
constexpr char kTurnedAway[] =
    "the daemon closed the connection without an answer: most likely this program is not entitled (telvorad.entitlements(5)), or its user has too many connections (telvorad.defaults(5))";

}  // namespace

void ClientSession::Connection::start(UniqueFd socket) {
    const auto bus = BusConnection::make(strand_, std::move(socket), BusRole::kClient);
    exportMethods<kClientMessageMethods>(*bus, [this](const auto& run) {
        answered_ = true;
        return run(*this);
    });
    bus_ = bus.get();
    bus_->start([self = shared_from_this()](const std::string& reason) { self->ended(reason); });
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
    const std::weak_ptr<FlushWatch::Flush> flush = callAfter(
        kFlushMessages, [number](Connection& self) { *number = self.flushes_.newestStates(); },
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
    call<std::string>(kFetchDisplayURL, [suspects = std::move(suspects)](const auto& answer) {
        if (answer) FlushWatch::convict(suspects);
    });
}

// Counts a call as pending while the result exists. Null if too many are pending.
std::shared_ptr<void> ClientSession::Connection::takePendingCall() {
    if (pendingCalls_.fetch_add(1, std::memory_order_relaxed) >= kMaxPendingCalls) {
        pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
        return nullptr;
    }
    return {this, [self = shared_from_this()](void*) {
                self->pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
            }};
}

void ClientSession::Connection::messageToClient(std::optional<Dictionary> sessionInfo, double timestamp,
                                                uint16_t category, uint16_t type,
                                                std::optional<Dictionary> payload) {
    if (!handlers_.aggregationBlock || invalidated_) return;
    handlers_.aggregationBlock({std::move(sessionInfo), timestamp, category, type, std::move(payload)});
}

}  // namespace telvora
