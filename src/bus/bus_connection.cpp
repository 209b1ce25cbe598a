// SPDX-License-Identifier: Apache-2.0
//
// Set-up, the event loop and the end of a connection; bus_calls.cpp has its messages.
//
// Invariants: bus_ is set until teardown() has run. sd-bus is entered only through processOne() and the
// sending functions. The descriptor is registered with Asio only while sd-bus has it open: sd-bus closes it
// when sd_bus_process() is called on a connection that has begun to close, so that is never done.
//
// A server half-closes a connection that it ends. A peer that writes to a closed socket fails, and its sd-bus
// ends the connection then, with messages unread. So the server shuts down only its sending side, once all is
// written; the peer reads all and closes the socket. Calls that arrive in between are discarded.
#include "bus/bus_connection.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <asio/error.hpp>
#include <asio/post.hpp>

#include "util/error_text.h"

namespace telvora {

namespace {

// Length of one turn of a strand; a turn of small messages takes well under a millisecond.
constexpr int kMessagesPerTurn = 64;
// sd-bus requests 8 MiB per socket; this size is enough to keep both ends busy.
constexpr int kSendBufferBytes = 256 << 10;

}  // namespace

tl::expected<std::shared_ptr<BusConnection>, std::string> BusConnection::make(Strand strand, UniqueFd socket,
                                                                              BusRole role,
                                                                              BusLimits limits) {
    std::shared_ptr<BusConnection> connection(
        new BusConnection(std::move(strand), std::move(socket), role, limits));
    return connection->configure().map([&] { return connection; });
}

BusConnection::BusConnection(Strand strand, UniqueFd socket, BusRole role, BusLimits limits)
    : strand_(std::move(strand)),
      role_(role),
      limits_(limits),
      socket_(std::move(socket)),
      descriptor_(strand_),
      timer_(strand_) {}

BusConnection::~BusConnection() {
    if (descriptor_.is_open()) descriptor_.release();
}

tl::expected<void, std::string> BusConnection::configure() {
    sd_bus* bus = nullptr;
    int result = sd_bus_new(&bus);
    bus_.reset(bus);
    if (result >= 0 && role_ == BusRole::kServer) {
        sd_id128_t guid = {};
        result = sd_id128_randomize(&guid);
        if (result >= 0) result = sd_bus_set_server(bus, true, guid);
        if (result >= 0) result = sd_bus_set_anonymous(bus, false);
    }
    // The daemon checks a peer's access before it makes the connection; sd-bus makes no check per method.
    if (result >= 0) result = sd_bus_set_trusted(bus, true);
    if (result >= 0) result = sd_bus_negotiate_fds(bus, true);
    if (result >= 0) result = sd_bus_set_fd(bus, socket_.get(), socket_.get());
    if (result >= 0) {
        socket_.release();
        sd_bus_slot* slot = nullptr;
        result = sd_bus_add_filter(bus, &slot, onAnyMessage, this);
        filter_.reset(slot);
    }
    if (result < 0) return tl::unexpected(errorText(-result));
    return role_ == BusRole::kServer ? exportHello() : tl::expected<void, std::string>{};
}

// Tools that expect a message bus on every socket begin with this call and fail without an answer.
tl::expected<void, std::string> BusConnection::exportHello() {
    static const BusInterface busInterface("org.freedesktop.DBus", {{"Hello", {}, {{"", "s"}}}});
    const auto sayHello = [this](size_t, BusMessage& call) -> std::optional<BusError> {
        replyNow(call, [](BusMessage& reply) { return reply.appendString(":1.0"); });
        return std::nullopt;
    };
    return exportInterface("/org/freedesktop/DBus", busInterface, sayHello);
}

void BusConnection::start(ClosedHandler closed, std::function<void()> gone) {
    closed_ = std::move(closed);
    gone_ = std::move(gone);
    asio::post(strand_, [self = shared_from_this()] { self->begin(); });
}

void BusConnection::begin() {
    if (!bus_) return;
    authenticationDeadline_ = std::chrono::steady_clock::now() + limits_.authenticationTimeout;
    const int result = sd_bus_start(bus_.get());
    if (result < 0) return end(errorText(-result));

    const int fd = sd_bus_get_fd(bus_.get());
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    asio::error_code error;
    descriptor_.assign(fd, error);
    if (error) return end(error.message());
    pump();
}

bool BusConnection::isOpen() const {
    return bus_ && !halfClosed_ && sd_bus_is_open(bus_.get()) > 0;
}

// One step of sd-bus: writes queued messages, or reads and dispatches one message. 0 if sd-bus is idle.
int BusConnection::processOne() {
    if (!isOpen()) {  // a call found the peer gone
        end("the peer has closed the connection");
        return -ENOTCONN;
    }
    pumping_ = true;
    const int result = sd_bus_process(bus_.get(), nullptr);
    pumping_ = false;
    discardWritten();
    if (closeRequested_) {
        halfClose(*closeRequested_);
        return -ENOTCONN;
    }
    if (result < 0) {
        end(errorText(-result));
    } else if (!isOpen()) {
        end("the peer has closed the connection");
        return -ENOTCONN;
    } else {
        notifyUncongested();
    }
    return result;
}

void BusConnection::pump() {
    for (int i = 0; i < kMessagesPerTurn; ++i) {
        // While reading is paused, a step may only write; sd-bus reads if it can't write.
        if (readPaused() && !canWrite()) return arm();
        const int result = processOne();
        if (result < 0) return;
        if (result == 0) return arm();
    }
    if (turnPosted_) return;
    turnPosted_ = true;
    asio::post(strand_, [self = shared_from_this()] {
        self->turnPosted_ = false;
        if (self->bus_ && !self->halfClosed_) self->pump();
    });
}

// Only a server pauses reading: if both ends did, each could wait for the other for ever. A client requested
// the answers that it receives.
bool BusConnection::readPaused() const {
    return role_ == BusRole::kServer && !hungUp_ &&
           (outputCongested() || pendingCalls_.size() >= limits_.pendingCalls);
}

void BusConnection::arm() {
    const int events = sd_bus_get_events(bus_.get());
    if (events < 0) return end(errnoText(events));
    const bool paused = readPaused();
    if ((events & POLLIN) != 0 && !paused) waitFor(kRead);
    if ((events & POLLOUT) != 0) waitFor(kWrite);
    if (paused) waitFor(kHangUp);
    armTimer();
}

void BusConnection::waitFor(Wait wait) {
    if (std::exchange(waiting_[wait], true)) return;
    static constexpr asio::posix::descriptor_base::wait_type kTypes[kWaits] = {
        asio::posix::descriptor_base::wait_read, asio::posix::descriptor_base::wait_write,
        asio::posix::descriptor_base::wait_error};
    descriptor_.async_wait(kTypes[wait], [self = shared_from_this(), wait](const asio::error_code& error) {
        self->waiting_[wait] = false;
        if (!self->bus_ || error == asio::error::operation_aborted) return;
        self->halfClosed_ ? self->drain(wait) : self->onReady(wait);
    });
}

void BusConnection::onReady(Wait wait) {
    // Reading is not paused any more: messages that the peer sent before it hung up are still processed.
    if (wait == kHangUp) hungUp_ = true;
    if (wait == kRead) checkIncomingSize();
    if (bus_) pump();
}

// All readable bytes are read in this turn. Until a message is complete, they belong to one message.
void BusConnection::checkIncomingSize() {
    int available = 0;
    if (ioctl(sd_bus_get_fd(bus_.get()), FIONREAD, &available) != 0 || available < 0) return;
    if (std::exchange(messagesRead_, 0) != 0) bytesOfPartialMessage_ = 0;
    bytesOfPartialMessage_ += static_cast<size_t>(available);
    if (bytesOfPartialMessage_ > limits_.messageSize) end("a message is too large");
}

void BusConnection::armTimer() {
    std::optional<asio::steady_timer::time_point> deadline;
    uint64_t microseconds = UINT64_MAX;
    if (sd_bus_get_timeout(bus_.get(), &microseconds) >= 0 && microseconds != UINT64_MAX) {
        deadline = asio::steady_timer::time_point(std::chrono::microseconds(microseconds));
    }
    if (authenticationDeadline_ && sd_bus_is_ready(bus_.get()) > 0) authenticationDeadline_.reset();
    if (authenticationDeadline_)
        deadline = std::min(deadline.value_or(*authenticationDeadline_), *authenticationDeadline_);

    if (deadline == timerSetFor_) return;
    timerSetFor_ = deadline;
    if (!deadline) {
        timer_.cancel();
        return;
    }
    timer_.expires_at(*deadline);
    timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
        if (error || !self->bus_ || self->halfClosed_) return;
        self->timerSetFor_.reset();
        const auto& authentication = self->authenticationDeadline_;
        if (authentication && *authentication <= std::chrono::steady_clock::now() &&
            sd_bus_is_ready(self->bus_.get()) <= 0) {
            return self->end("authentication timed out");
        }
        self->pump();
    });
}

void BusConnection::close(const std::string& reason) {
    if (!bus_ || halfClosed_) return;
    if (pumping_) {
        closeRequested_ = reason;
    } else {
        halfClose(reason);
    }
}

void BusConnection::end(const std::string& reason) {
    if (!bus_) return;
    const auto self = shared_from_this();
    if (const ClosedHandler closed = std::exchange(closed_, nullptr)) closed(reason);
    teardown();
}

void BusConnection::halfClose(const std::string& reason) {
    const bool ready = role_ == BusRole::kServer && sd_bus_is_ready(bus_.get()) > 0;
    if (!ready) return end(reason);
    const auto self = shared_from_this();
    if (const ClosedHandler closed = std::exchange(closed_, nullptr)) closed(reason);
    if (!isOpen() || peerHungUp()) return teardown();
    pendingCalls_.clear();
    halfClosed_ = true;
    timer_.expires_after(limits_.drainTimeout);
    timer_.async_wait([self](const asio::error_code& cancelled) {
        if (!cancelled && self->bus_) self->teardown();
    });
    shutdownWhenWritten();
}

void BusConnection::shutdownWhenWritten() {
    if (queuedMessages() == 0) {
        shutdown(sd_bus_get_fd(bus_.get()), SHUT_WR);
    } else {
        waitFor(kWrite);
    }
    waitFor(kHangUp);
}

// A step of sd-bus writes, and may read; onAnyMessage() discards the message then.
void BusConnection::drain(Wait wait) {
    if (wait == kHangUp) return teardown();
    if (wait != kWrite || queuedMessages() == 0) return;
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (result < 0 || sd_bus_is_open(bus_.get()) <= 0) return teardown();
    shutdownWhenWritten();
}

void BusConnection::teardown() {
    const auto self = shared_from_this();
    timer_.cancel();
    if (descriptor_.is_open()) descriptor_.release();
    pendingCalls_.clear();
    filter_.reset();
    exports_.clear();
    uncongested_ = nullptr;
    bus_.reset();
    if (const auto gone = std::exchange(gone_, nullptr)) gone();
}

}  // namespace telvora
