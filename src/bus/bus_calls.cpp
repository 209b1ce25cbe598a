// SPDX-License-Identifier: Apache-2.0
//
// The messages of a connection: calls in, answers out, calls out, answers in.
#include <poll.h>

#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <exception>

#include "bus/bus_connection.h"
#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

// --- Calls of the peer ---

tl::expected<void, std::string> BusConnection::exportInterface(const char* path,
                                                               const BusInterface& interface,
                                                               BusCallHandler handler) {
    const int result = exports_.emplace_back(interface, std::move(handler)).addTo(bus_.get(), path);
    if (result < 0) return tl::unexpected(std::string(std::strerror(-result)));
    return {};
}

int BusConnection::onAnyMessage(sd_bus_message*, void* userdata, sd_bus_error*) noexcept {
    auto& connection = *static_cast<BusConnection*>(userdata);
    ++connection.messagesRead_;
    return connection.halfClosed_ ? 1 : 0;  // 0: not handled, on to the objects
}

std::shared_ptr<PendingCall> BusConnection::defer(BusMessage& call) {
    const uint64_t id = ++lastCallId_;
    pendingCalls_.emplace(id, BusMessage::share(call.get()));
    return std::make_shared<PendingCall>(shared_from_this(), id);
}

void BusConnection::replyNow(BusMessage& call, const PendingCall::Fill& fill) {
    sendReply(call.get(), fill);
}

void BusConnection::answer(uint64_t id, const PendingCall::Fill& fill) {
    const auto call = pendingCalls_.extract(id);
    if (!call.empty() && isOpen()) sendReply(call.mapped().get(), fill);
    rearm();
}

void BusConnection::abandon(uint64_t id) {
    if (pendingCalls_.erase(id) != 0) rearm();
}

// Waits anew after a change to the bus outside its own turn. Neither processes input nor ends the connection
// here: the caller may be deep inside a session.
void BusConnection::rearm() {
    if (!bus_ || pumping_ || halfClosed_ || !descriptor_.is_open()) return;
    if (isOpen()) return arm();
    asio::post(strand_, [self = shared_from_this()] { self->end("the peer has closed the connection"); });
}

int BusConnection::sendReply(sd_bus_message* call, const PendingCall::Fill& fill) {
    if (sd_bus_message_get_expect_reply(call) == 0) return 0;
    sd_bus_message* message = nullptr;
    int result = sd_bus_message_new_method_return(call, &message);
    BusMessage reply = BusMessage::adopt(message);
    if (result >= 0) result = fill(reply);
    if (result >= 0) return send(reply);
    if (peerHungUp()) return result;
    TELVORA_LOG(kLogError, "BusConnection(sendReply): Failed to write the answer to %s: %s",
                sd_bus_message_get_member(call), errorText(-result).c_str());
    return sd_bus_reply_method_errno(call, result, nullptr);
}

PendingCall::PendingCall(std::shared_ptr<BusConnection> connection, uint64_t id)
    : connection_(std::move(connection)), id_(id) {}

PendingCall::~PendingCall() {
    if (answered_.load(std::memory_order_relaxed)) return;
    asio::dispatch(connection_->strand_, [connection = connection_, id = id_] { connection->abandon(id); });
}

void PendingCall::reply(Fill fill) {
    if (answered_.exchange(true, std::memory_order_relaxed)) return;
    if (connection_->strand_.running_in_this_thread()) return connection_->answer(id_, fill);
    asio::post(connection_->strand_, [connection = connection_, id = id_, body = std::move(fill)] {
        connection->answer(id, body);
    });
}

// --- Own calls ---

struct BusConnection::SentCall {
    BusConnection* connection;
    ReplyHandler handler;
};

BusMessage BusConnection::newCall(const char* path, const char* interface, const char* method) {
    sd_bus_message* message = nullptr;
    if (bus_) sd_bus_message_new_method_call(bus_.get(), &message, nullptr, path, interface, method);
    return BusMessage::adopt(message);
}

tl::expected<void, std::string> BusConnection::sendOneWay(BusMessage call) {
    if (!isOpen() || !call) return tl::unexpected(std::string("the connection has ended"));
    int result = sd_bus_message_set_expect_reply(call.get(), false);
    if (result >= 0) result = send(call);
    rearm();
    if (result < 0) return tl::unexpected(std::string(std::strerror(-result)));
    return {};
}

tl::expected<void, std::string> BusConnection::call(BusMessage call, ReplyHandler handler) {
    if (!isOpen() || !call) return tl::unexpected(std::string("the connection has ended"));
    auto sent = std::make_unique<SentCall>(SentCall{this, std::move(handler)});
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_call_async(bus_.get(), &slot, call.get(), onReply, sent.get(), UINT64_MAX);
    if (result < 0) return tl::unexpected(errorText(-result));
    sd_bus_slot_set_destroy_callback(slot, [](void* userdata) { delete static_cast<SentCall*>(userdata); });
    sent.release();
    sd_bus_slot_set_floating(slot, true);  // owned by the bus from here, until the answer or the bus's end
    sd_bus_slot_unref(slot);
    noteQueued(call.bodySize());
    rearm();
    return {};
}

int BusConnection::onReply(sd_bus_message* message, void* userdata, sd_bus_error*) noexcept {
    auto& sent = *static_cast<SentCall*>(userdata);
    ++sent.connection->messagesRead_;
    try {
        BusMessage reply = BusMessage::share(message);
        sent.handler(reply);
    } catch (const std::exception& exception) {
        TELVORA_LOG(kLogError, "BusConnection(onReply): %s", exception.what());
    }
    return 1;
}

// --- The queue ---

// sd-bus ends the connection when a write fails, although input may be left that the peer sent before it
// left. So this end does not write to a peer that has hung up, and reads its input to the end.
bool BusConnection::peerHungUp() {
    if (hungUp_) return true;
    pollfd socket = {sd_bus_get_fd(bus_.get()), 0, 0};
    hungUp_ = poll(&socket, 1, 0) > 0 && (socket.revents & POLLHUP) != 0;
    return hungUp_;
}

int BusConnection::send(BusMessage& message) {
    if (peerHungUp()) return -EPIPE;
    const int result = sd_bus_send(bus_.get(), message.get(), nullptr);
    if (result >= 0) noteQueued(message.bodySize());
    return result;
}

// sd-bus reports the number of its queued messages but not their sizes. It writes them in order, so the
// newest sizes, as many as messages are queued, are those that count.
void BusConnection::noteQueued(size_t bytes) {
    queuedSizes_.push_back(bytes);
    queuedBytes_ += bytes;
    discardWritten();
    congested_ = congested_ || outputCongested();
}

void BusConnection::notifyUncongested() {
    if (!congested_ || outputCongested()) return;
    congested_ = false;
    if (uncongested_) uncongested_();
}

void BusConnection::discardWritten() {
    const size_t queued = queuedMessages();
    while (queuedSizes_.size() > queued) {
        queuedBytes_ -= queuedSizes_.front();
        queuedSizes_.pop_front();
    }
}

size_t BusConnection::queuedMessages() const {
    uint64_t queued = 0;
    return bus_ && sd_bus_get_n_queued_write(bus_.get(), &queued) >= 0 ? queued : 0;
}

// Polled before each step: by the time that the handler of a wait runs, the socket may be full again.
bool BusConnection::canWrite() const {
    if (queuedMessages() == 0) return false;
    pollfd socket = {sd_bus_get_fd(bus_.get()), POLLOUT, 0};
    return poll(&socket, 1, 0) > 0 && (socket.revents & POLLOUT) != 0;
}

bool BusConnection::outputCongested() const {
    return queuedBytes_ >= limits_.queuedBytes || queuedMessages() >= limits_.queuedMessages;
}

}  // namespace telvora
