// SPDX-License-Identifier: Apache-2.0
#include "client/client_session_connection.h"

#include "protocol/method_export.h"
#include "util/log.h"

namespace telvora {

namespace {

// The loss reason of a connection that ends without any answer: the daemon refuses a client this way.
constexpr char kTurnedAway[] =
    "the daemon closed the connection without an answer: most likely this program is not entitled (telvorad.entitlements(5)), or its user has too many connections (telvorad.defaults(5))";

constexpr char kNoAnswer[] = "the daemon does not answer";

// A machine under load may start the daemon, and let it accept the connection, late.
constexpr std::chrono::minutes kAuthenticationTimeout{2};

// Written ahead of what the socket takes. More would not leave sooner.
constexpr size_t kOutputBytes = size_t{128} << 10;

CallFailure notSent(BusSendFailure failure) {
    return {CallFailure::Kind::kInvalid, failure == BusSendFailure::kTooLarge
                                             ? "the arguments are too large"
                                             : "the arguments can't be sent"};
}

}  // namespace

void ClientSession::Connection::start(UniqueFd socket) {
    BusLimits limits;
    limits.queuedBytes = kOutputBytes;
    limits.authenticationTimeout = kAuthenticationTimeout;
    const auto bus = BusConnection::make(strand_, std::move(socket), BusRole::kClient, limits);
    bus->onUncongested([this] { sendQueued(); });
    exportMethods<kClientMessageMethods>(*bus, [this](const auto& run) {
        answered_ = true;
        return run(*this);
    });
    bus_ = bus.get();
    const auto self = shared_from_this();
    bus_->start([self](const std::string& reason) { self->ended(reason); }, [self] {});
}

void ClientSession::Connection::invalidate() {
    asio::post(strand_, [self = shared_from_this()] {
        self->invalidated_ = true;
        if (self->bus_ != nullptr) self->bus_->close("invalidated");
    });
}

void ClientSession::Connection::ended(const std::string& reason) {
    bus_ = nullptr;
    const bool unanswered = !answered_ && !invalidated_;
    if (unanswered) loss_ = reason == kAuthenticationTimedOut ? kNoAnswer : kTurnedAway;
    if (!invalidated_ && handlers_.connectionLost) handlers_.connectionLost(unanswered ? loss_ : reason);
    wake();  // the calls that were not sent are lost, after those that were
}

// --- Calls ---

std::unique_ptr<ClientSession::Connection::Call> ClientSession::Connection::makeFlush(
    Completion<FlushAnswer> completion) {
    const auto flush = std::make_shared<FlushWatch::Flush>(std::move(completion));
    return make<kFlushMessages>(
        [flush = std::weak_ptr(flush)](Connection& self) {
            self.flushes_.add(flush, self.flushes_.newestStates());
            self.probeFlushes();
        },
        Completion<FlushAnswer>([flush](auto answer) { flush->answered(std::move(answer)); }));
}

void ClientSession::Connection::flush(Completion<FlushAnswer> completion) {
    submit(makeFlush(std::move(completion)));
}

void ClientSession::Connection::flushAndStart(Completion<ReportingStates> completion) {
    std::unique_ptr<Call> flush = makeFlush({});
    std::unique_ptr<Call> start = makeForStates<kStartConfig>(std::move(completion));
    if (!admit(flush)) return submit(std::move(start));
    if (!admit(start)) return submit(std::move(flush));
    if (queue_.push(std::move(flush), std::move(start))) wake();
}

void ClientSession::Connection::submit(std::unique_ptr<Call> call) {
    if (admit(call) && queue_.push(std::move(call))) wake();
}

// Counts the call as pending. If too many are pending, it takes the call and fails it on the strand.
bool ClientSession::Connection::admit(std::unique_ptr<Call>& call) {
    if (callLimit_ == CallLimit::kNone) return true;
    if (pendingCalls_.fetch_add(1, std::memory_order_relaxed) < kMaxPendingCalls) {
        call->count();
        return true;
    }
    pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
    asio::post(strand_, [self = shared_from_this(), call = std::move(call)] {
        call->fail({CallFailure::Kind::kTooManyCalls, "too many calls wait for their answer"});
    });
    return false;
}

void ClientSession::Connection::wake() {
    asio::post(strand_, [self = shared_from_this()] { self->sendQueued(); });
}

// The rest waits in the queue while the daemon does not read.
void ClientSession::Connection::sendQueued() {
    while (bus_ == nullptr || !bus_->outputCongested()) {
        std::unique_ptr<Call> call = queue_.pop();
        if (!call) return;
        Call::send(std::move(call));
    }
}

void ClientSession::Connection::Call::send(std::unique_ptr<Call> call) {
    BusConnection* const bus = call->connection_.bus_;
    if (bus == nullptr) return;  // its destructor runs the completion
    if (!call->body_) return call->fail(notSent(call->body_.error()));
    call->beforeSend();
    const std::string body = std::exchange(*call->body_, {});
    Call& sent = *call;
    std::unique_ptr<BusReplyTarget> target = std::move(call);
    const auto result = bus->call(sent.header_, body, target, std::move(sent.descriptors_));
    // If the connection has ended, the call's destructor runs the completion.
    if (!result && result.error() != BusSendFailure::kEnded) sent.fail(notSent(result.error()));
}

void ClientSession::Connection::Call::answered(BusMessage& reply) {
    connection_.answered_ = true;
    if (const auto error = reply.error()) {
        const std::string& text = error->message;
        return fail({CallFailure::Kind::kRefused, text.empty() ? error->name : error->name + ": " + text});
    }
    succeed(reply);
}

void ClientSession::Connection::probeFlushes() {
    if (followsParent_) return;
    FlushWatch::Suspects suspects = flushes_.takeSuspects();
    if (suspects.empty()) return;
    call<kFetchDisplayURL>(Completion<std::string>([suspects = std::move(suspects)](const auto& answer) {
        if (answer) FlushWatch::convict(suspects);
    }));
}

void ClientSession::Connection::messageToClient(std::optional<Dictionary> sessionInfo, double timestamp,
                                                uint16_t category, uint16_t type,
                                                std::optional<Dictionary> payload) {
    if (!handlers_.aggregationBlock || invalidated_) return;
    handlers_.aggregationBlock({std::move(sessionInfo), timestamp, category, type, std::move(payload)});
}

}  // namespace telvora
