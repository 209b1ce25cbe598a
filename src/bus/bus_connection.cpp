// SPDX-License-Identifier: Apache-2.0
//
// The turns of the strand and the end of a connection; bus_dispatch.cpp has its messages.
//
// A peer that hangs up is read from to the end: the messages that it sent before still count. Answers to it
// are dropped.
//
// A server half-closes a connection that it ends. A peer that writes to a closed socket fails, and may end
// the connection then with messages unread. So the server shuts down only its sending side, once all is
// written; the peer reads all and closes the socket. Calls that arrive in between are discarded.
#include "bus/bus_connection.h"

#include <sys/socket.h>

#include <asio/error.hpp>
#include <asio/post.hpp>
#include <cerrno>

#include "async/descriptor_closers.h"
#include "util/attempt.h"
#include "util/error_text.h"
#include "util/hexadecimal.h"
#include "util/random.h"

namespace telvora {

namespace {

// Length of one turn of a strand; a turn of small messages takes well under a millisecond. The message that
// is handled at the end of the time is the turn's last.
constexpr int kMessagesPerTurn = 256;
constexpr uint64_t kMillisecondsPerTurn = 4;
// Keeps both ends busy.
constexpr int kSendBufferBytes = 256 << 10;
constexpr char kPeerClosed[] = "the peer has closed the connection";

// 32 hexadecimal digits.
std::string randomServerId() {
    const auto id = randomBytes<16>().value_or(std::array<uint8_t, 16>{});
    return hexText({reinterpret_cast<const char*>(id.data()), id.size()});
}

}  // namespace

std::shared_ptr<BusConnection> BusConnection::make(Strand strand, UniqueFd socket, BusRole role,
                                                   BusLimits limits) {
    return std::shared_ptr<BusConnection>(
        new BusConnection(std::move(strand), std::move(socket), role, limits));
}

BusConnection::BusConnection(Strand strand, UniqueFd socket, BusRole role, BusLimits limits)
    : strand_(std::move(strand)),
      role_(role),
      limits_(limits),
      socket_(std::move(socket)),
      descriptor_(strand_),
      input_(limits.messageSize, socket_.closer() ? socket_.closer()->ofReceived() : nullptr) {}

// The calls end before the handlers, which may own what the calls use.
BusConnection::~BusConnection() {
    replies_.reset();
    if (descriptor_.is_open()) descriptor_.release();
}

void BusConnection::start(ClosedHandler closed, std::function<void()> gone) {
    closed_ = std::move(closed);
    gone_ = std::move(gone);
    state_ = State::authenticating;
    asio::post(strand_, [self = shared_from_this()] { self->guarded([&] { self->begin(); }); });
}

void BusConnection::begin() {
    if (state_ != State::authenticating) return;
    const int socket = socket_.get();
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    if (role_ == BusRole::kServer) {
        ucred peer{};
        socklen_t size = sizeof peer;
        if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return end("the peer is unknown");
        passDescriptors(socket, false);
        handshake_.reset(
            new Handshake{ServerAuthentication(peer.uid, randomServerId(), limits_.descriptors), {}});
    } else {
        handshake_.reset(new Handshake{ClientAuthentication(limits_.descriptors),
                                       std::string(ClientAuthentication::greeting(limits_.descriptors))});
    }
    asio::error_code error;
    descriptor_.assign(socket, error);
    if (error) return end(error.message());
    startTimer(limits_.authenticationTimeout, &BusConnection::onAuthenticationTimeout);
    receive();
}

// --- Turns ---

void BusConnection::receive() {
    const auto received = input_.receive(descriptor_.native_handle());
    if (!received) return end(received.error());
    inputEnded_ = *received == BusInput::Received::end;
    if (userTurns_) userTurns_->add(input_.lastReadSize());
    turn();
}

// A busy user's connections wait for each other, and for those of other busy users.
void BusConnection::receiveInTurn() {
    if (!userTurns_ || !userTurns_->isBusy()) return receive();
    UserTurns::queue(userTurns_, strand_, [self = shared_from_this()] {
        self->guarded([&] {
            if (self->isOpen()) self->receive();
        });
    });
}

void BusConnection::turn() {
    const auto self = shared_from_this();
    const uint64_t begin = UserTurns::milliseconds();
    inTurn_ = true;
    const bool goesOn = (state_ == State::ready || authenticate()) && handleMessages(begin);
    inTurn_ = false;
    if (userTurns_) userTurns_->addTime(UserTurns::milliseconds() - begin);
    if (state_ == State::closed) return;
    if (!input_.keepRest() && !violation_) violation_ = "too much input of the peer's user waits";
    if (violation_) return end(*violation_);
    if (closeRequested_) return halfClose(*closeRequested_);
    if (!goesOn && inputEnded_) return end(kPeerClosed);
    flush();
    if (isOpen()) waitForMore();
}

// True once the peer has authenticated.
bool BusConnection::authenticate() {
    std::string_view bytes = input_.bytes();
    const size_t before = bytes.size();
    AuthenticationState result;
    const char* reason = "";
    bool passesDescriptors = false;
    if (auto* server = std::get_if<ServerAuthentication>(&handshake_->end)) {
        result = server->advance(bytes, handshake_->output);
        reason = server->reason();
        // The peer may send some as soon as it has read the answer.
        passesDescriptors = server->passesDescriptors();
        if (passesDescriptors) passDescriptors(descriptor_.native_handle(), true);
    } else {
        auto& client = std::get<ClientAuthentication>(handshake_->end);
        result = client.advance(bytes);
        reason = client.reason();
        passesDescriptors = client.passesDescriptors();
    }
    input_.take(before - bytes.size());
    if (result == AuthenticationState::failed) violation_ = reason;
    if (result != AuthenticationState::done) return false;
    timer_.reset();
    state_ = State::ready;
    passesDescriptors_ = passesDescriptors;
    return true;
}

// Handles the messages that are there. True if some were left for the next turn. `begin`: of the turn.
bool BusConnection::handleMessages(uint64_t begin) {
    std::optional<MessageView> previous;
    for (int i = 0; i < kMessagesPerTurn; ++i) {
        if (i > 0 && UserTurns::milliseconds() - begin >= kMillisecondsPerTurn) break;
        if (readPaused()) return true;
        if (mayHandle_ && input_.hasMessage() && !mayHandle_()) {
            awaitsAdmission_ = shared_from_this();
            return true;
        }
        const auto bytes = input_.nextMessage();
        if (!bytes) violation_ = bytes.error();
        if (!bytes || !*bytes) return false;
        const size_t waiting = input_.waitingDescriptors();
        const auto view =
            parseMessage(**bytes, static_cast<uint32_t>(waiting), previous ? &*previous : nullptr);
        if (!view) violation_ = view.error();
        if (!view) return false;
        if (*view) dispatch(**view, input_.takeDescriptors((*view)->descriptors));
        previous = *view;
        if (violation_ || closeRequested_ || state_ == State::closed) return false;
    }
    return input_.hasMessage();
}

// Only a server pauses reading: if both ends did, each could wait for the other for ever. A client requested
// the answers that it receives.
bool BusConnection::readPaused() const {
    if (role_ != BusRole::kServer) return false;
    return exclusiveCalls_ > 0 || awaitsAdmission_ ||
           (!hungUp_ && (outputCongested() || pendingCalls_ >= limits_.pendingCalls));
}

void BusConnection::admit() {
    const auto self = std::exchange(awaitsAdmission_, nullptr);
    if (isOpen()) waitForMore();
}

// Writes the lines of the authentication. True once all are sent.
bool BusConnection::sendHandshake() {
    std::string& output = handshake_->output;
    if (!output.empty()) {
        const ssize_t sent =
            send(descriptor_.native_handle(), output.data(), output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        // A peer that reads no more can't authenticate, though its socket stays writable.
        if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            end(errno == EPIPE ? kPeerClosed : errorText(errno));
            return false;
        }
        if (sent > 0) output.erase(0, static_cast<size_t>(sent));
        if (!output.empty()) {
            waitFor(kWrite);
            return false;
        }
    }
    if (state_ != State::authenticating) handshake_.reset();
    return true;
}

// Writes what the socket takes.
void BusConnection::flush() {
    if (!descriptor_.is_open()) return;
    if (handshake_ && !sendHandshake()) return;
    if (state_ == State::authenticating || output_.empty()) return;
    congested_ = congested_ || outputCongested();
    const auto done = output_.flush(descriptor_.native_handle());
    if (!done && done.error() != EPIPE && done.error() != ECONNRESET) return end(errorText(done.error()));
    if (!done) {
        hungUp_ = true;
        output_.clear();
        // A peer that reads on finds the end in place of its answers.
        shutdown(descriptor_.native_handle(), SHUT_WR);
    } else if (!*done) {
        waitFor(kWrite);
    }
    if (congested_ && !outputCongested()) {
        congested_ = false;
        if (uncongested_) uncongested_();
    }
}

// After something was written outside a turn: what else is written meanwhile leaves with it.
void BusConnection::flushSoon() {
    if (inTurn_ || flushPosted_) return;
    asio::post(strand_, [self = shared_from_this()] {
        self->flushPosted_ = false;
        self->guarded([&] {
            if (!self->isOpen() || self->endPostponed()) return;
            self->flush();
            if (self->isOpen()) self->waitForMore();
        });
    });
    flushPosted_ = true;
}

void BusConnection::waitForMore() {
    if (!descriptor_.is_open()) return;
    if (readPaused()) return hungUp_ ? void() : waitFor(kHangUp);
    // Before the authentication is done, the bytes that wait are an unfinished line.
    const bool hasMessage = state_ == State::ready && input_.hasMessage();
    if (!hasMessage && !inputEnded_) return waitFor(kRead);
    if (turnPosted_) return;
    const auto next = [self = shared_from_this()] {
        self->turnPosted_ = false;
        self->guarded([&] {
            if (self->isOpen()) self->turn();
        });
    };
    userTurns_ && userTurns_->isBusy() ? UserTurns::queue(userTurns_, strand_, next)
                                       : asio::post(strand_, next);
    turnPosted_ = true;
}

void BusConnection::waitFor(Wait wait) {
    if (waiting_[wait]) return;
    static constexpr asio::posix::descriptor_base::wait_type kTypes[kWaits] = {
        asio::posix::descriptor_base::wait_read, asio::posix::descriptor_base::wait_write,
        asio::posix::descriptor_base::wait_error};
    descriptor_.async_wait(kTypes[wait], [self = shared_from_this(), wait](const asio::error_code& error) {
        self->waiting_[wait] = false;
        if (!self->descriptor_.is_open() || error == asio::error::operation_aborted) return;
        self->guarded([&] { self->onReady(wait); });
    });
    waiting_[wait] = true;
}

void BusConnection::onReady(Wait wait) {
    if (wait == kHangUp) hungUp_ = true;
    if (state_ == State::halfClosed) return wait == kHangUp ? teardown() : drain();
    if (!isOpen()) return;
    if (wait == kRead && !readPaused()) return receiveInTurn();
    flush();
    if (isOpen()) waitForMore();
}

// --- The end ---

void BusConnection::startTimer(std::chrono::milliseconds time, void (BusConnection::*expired)()) {
    timer_ = std::make_unique<Timer>(strand_, time);
    timer_->async_wait([self = shared_from_this(), expired](const asio::error_code& cancelled) {
        if (!cancelled) self->guarded([&] { (self.get()->*expired)(); });
    });
}

// Reads once more: bytes that wait, since this end was busy, came in time.
void BusConnection::onAuthenticationTimeout() {
    if (state_ == State::authenticating) receive();
    if (state_ == State::authenticating) end(kAuthenticationTimedOut);
}

void BusConnection::close(const std::string& reason) {
    if (!isOpen() && state_ != State::created) return;
    if (inTurn_) {
        if (!closeRequested_) closeRequested_ = reason;
    } else {
        guarded([&] { halfClose(reason); });
    }
}

// Ends a connection whose end waited for an exclusive call.
bool BusConnection::endPostponed() {
    if (exclusiveCalls_ > 0 || (!violation_ && !closeRequested_)) return false;
    violation_ ? end(*violation_) : halfClose(*closeRequested_);
    return true;
}

// The peer gets no more messages.
void BusConnection::end(const std::string& reason) {
    if (state_ == State::ending || state_ == State::closed) return;
    if (exclusiveCalls_ > 0) {
        if (!violation_) violation_ = reason;
        return;
    }
    const auto self = shared_from_this();
    state_ = State::ending;
    runClosed(reason);
    teardown();
}

void BusConnection::runClosed(const std::string& reason) {
    const ClosedHandler closed = std::exchange(closed_, nullptr);
    if (closed) attempt("BusConnection(end)", [&] { closed(reason); });
}

void BusConnection::halfClose(const std::string& reason) {
    if (exclusiveCalls_ > 0) {
        if (!closeRequested_) closeRequested_ = reason;
        return;
    }
    const auto self = shared_from_this();
    if (state_ == State::ready) flush();
    if (role_ != BusRole::kServer || state_ != State::ready) return end(reason);
    runClosed(reason);
    if (state_ != State::ready || hungUp_ || inputEnded_) return teardown();
    state_ = State::halfClosed;
    startTimer(limits_.drainTimeout, &BusConnection::teardown);
    drain();
    if (state_ == State::halfClosed) waitFor(kHangUp);
}

// Writes the last messages, then shuts the sending side down.
void BusConnection::drain() {
    const auto done = output_.flush(descriptor_.native_handle());
    if (!done) return teardown();
    if (!*done) return waitFor(kWrite);
    shutdown(descriptor_.native_handle(), SHUT_WR);
}

void BusConnection::teardown() {
    if (state_ == State::closed) return;
    const auto self = shared_from_this();
    state_ = State::closed;
    timer_.reset();
    if (descriptor_.is_open()) descriptor_.release();
    socket_.reset();
    exports_.clear();
    replies_.reset();
    output_.clear();
    uncongested_ = nullptr;
    mayHandle_ = nullptr;
    signal_ = nullptr;
    awaitsAdmission_ = nullptr;
    if (const auto gone = std::exchange(gone_, nullptr)) attempt("BusConnection(teardown)", gone);
}

}  // namespace telvora
