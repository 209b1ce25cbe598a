// SPDX-License-Identifier: Apache-2.0
//
// The messages of a connection: calls in, answers out, calls out, answers in.
#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <exception>
#include <set>

#include "bus/bus_connection.h"
#include "bus/bus_standard.h"
#include "util/attempt.h"
#include "util/log.h"
#include "util/utf8.h"

namespace telvora {

namespace {

BusBody textBody(std::string text) {
    return [text = std::move(text)](WireWriter& body) {
        body.append(text);
        return true;
    };
}

}  // namespace

void BusConnection::dispatch(const MessageView& view, std::vector<UniqueFd> descriptors) {
    switch (view.type) {
        case MessageType::methodCall:
            return handleCall(view, std::move(descriptors));
        case MessageType::methodReturn:
        case MessageType::error:
            return handleReply(view, std::move(descriptors));
        case MessageType::signal:
            return handleSignal(view);
    }
}

void BusConnection::handleSignal(const MessageView& view) {
    BusMessage signal(view, {});
    if (signal_) signal_(signal);
    checkRest(signal.reader());
}

// Bytes that no handler reads must be valid all the same.
void BusConnection::checkRest(WireReader& body) {
    if (!body.finish()) violation_ = body.violation();
}

// --- Calls of the peer ---

void BusConnection::exportInterface(const char* path, const BusInterface& interface, BusCallHandler handler) {
    exports_.push_back({path, interface, std::move(handler)});
}

void BusConnection::handleCall(const MessageView& view, std::vector<UniqueFd> descriptors) {
    for (const Export& target : exports_) {
        if (target.path != view.path) continue;
        if (!view.interface.empty() && target.interface.name() != view.interface) continue;
        const auto method = target.interface.find(view.member);
        if (!method) continue;
        const std::string& expected = target.interface.signature(*method);
        if (view.signature != expected) {
            checkRest(BusMessage(view, {}).reader());
            return sendError(view, {kBusErrorInvalidArgs,
                                    "Invalid arguments '" + std::string(view.signature) + "' to call " +
                                        target.interface.name() + "." + std::string(view.member) +
                                        "(), expecting '" + expected + "'."});
        }
        BusMessage call(view, std::move(descriptors), target.interface.answerSignature(*method).c_str());
        return runHandler(target, *method, call);
    }
    checkRest(BusMessage(view, {}).reader());
    answerStandard(view);
}

// An exception of a handler becomes an error reply.
void BusConnection::runHandler(const Export& target, size_t method, BusMessage& call) {
    try {
        const std::optional<BusError> failure = target.handler(method, call);
        checkRest(call.reader());
        if (failure) sendError(call.view(), *failure);
    } catch (const std::bad_alloc&) {
        if (!call.isDeferred()) sendError(call.view(), noMemoryForCall());  // else its PendingCall answers
    } catch (const std::exception& exception) {
        sendError(call.view(), {kBusErrorFailed, exception.what()});
    }
}

void BusConnection::answerStandard(const MessageView& view) {
    const auto answerText = [&](std::string text) {
        sendReply(view.serial, isWanted(view), "s", textBody(std::move(text)));
    };
    switch (standardMethodOf(view)) {
        case StandardMethod::ping:
            return sendReply(view.serial, isWanted(view), "", [](WireWriter&) { return true; });
        case StandardMethod::machineId:
            return sendError(view, {"org.freedesktop.DBus.Error.AccessDenied",
                                    "The machine's identity is not for peers."});
        case StandardMethod::introspect:
            if (hasNode(view.path)) return answerText(introspect(view.path));
            break;
        case StandardMethod::allProperties:
            if (!hasNode(view.path)) break;
            return sendReply(view.serial, isWanted(view), "a{sv}", [](WireWriter& body) {
                body.closeArray(body.openArray(8));
                return true;
            });
        case StandardMethod::property:
            if (!hasNode(view.path)) break;
            return sendError(view, {"org.freedesktop.DBus.Error.UnknownProperty", "Unknown property."});
        case StandardMethod::hello:
            if (role_ == BusRole::kServer) return answerText(":1.0");
            break;
        case StandardMethod::none:
            break;
    }
    sendError(view, unknownTarget(view));
}

BusError BusConnection::unknownTarget(const MessageView& view) const {
    if (!hasNode(view.path))
        return {"org.freedesktop.DBus.Error.UnknownObject",
                "Unknown object '" + std::string(view.path) + "'."};
    return {
        "org.freedesktop.DBus.Error.UnknownMethod",
        "Unknown method " + std::string(view.member) + " or interface " + std::string(view.interface) + "."};
}

// An object, or a part of the path to one.
bool BusConnection::hasNode(std::string_view path) const {
    for (const Export& target : exports_) {
        if (target.path == path || !childNode(target.path, path).empty()) return true;
    }
    return false;
}

std::string BusConnection::introspect(std::string_view path) const {
    std::string interfaces;
    std::set<std::string, std::less<>> children;
    for (const Export& target : exports_) {
        if (target.path == path) interfaces += target.interface.introspection();
        if (const auto child = childNode(target.path, path); !child.empty()) children.emplace(child);
    }
    return introspectionDocument(interfaces, children);
}

// --- Answers ---

bool BusConnection::isWanted(const MessageView& call) {
    return (call.flags & kNoReplyExpected) == 0;
}

void BusConnection::sendReply(uint32_t serial, bool wanted, std::string_view signature, const BusBody& body) {
    if (!wanted || hungUp_ || state_ != State::ready) return;
    MessageView header;
    header.type = MessageType::methodReturn;
    header.flags = kNoReplyExpected;
    header.replySerial = serial;
    header.signature = signature;
    if (write(header, body)) return;
    TELVORA_LOG(kLogError, "BusConnection(sendReply): Failed to write an answer");
    sendError(serial, wanted, {kBusErrorFailed, "The answer can't be written"});
}

void BusConnection::sendError(uint32_t serial, bool wanted, const BusError& error) {
    if (!wanted || hungUp_ || state_ != State::ready) return;
    MessageView header;
    header.type = MessageType::error;
    header.flags = kNoReplyExpected;
    header.replySerial = serial;
    header.errorName = error.name;
    header.signature = "s";
    write(header, textBody(replaceInvalidUtf8(error.message)));
}

void BusConnection::replyNow(BusMessage& call, const BusBody& body) {
    sendReply(call.view().serial, isWanted(call.view()), call.answerSignature(), body);
}

std::shared_ptr<PendingCall> BusConnection::defer(BusMessage& call, BusCallOrder order) {
    auto pending = std::make_shared<PendingCall>(shared_from_this(), call.view().serial,
                                                 isWanted(call.view()), call.answerSignature(), order);
    call.setDeferred();
    ++pendingCalls_;
    if (order == BusCallOrder::kExclusive) ++exclusiveCalls_;
    return pending;
}

// Sends the answer of a pending call, if there is one. Needs memory only for that.
template <typename Answer>
void BusConnection::settle(BusCallOrder order, Answer answer) {
    --pendingCalls_;
    if (order == BusCallOrder::kExclusive) --exclusiveCalls_;
    guarded([&] {
        answer();
        flushSoon();
    });
}

PendingCall::~PendingCall() {
    if (answered_.load(std::memory_order_relaxed)) return;
    const bool failed = std::uncaught_exceptions() > 0;
    attempt("BusConnection(settle)", [&] {
        asio::dispatch(connection_->strand_, [connection = connection_, serial = serial_,
                                              wanted = wanted_ && failed, order = order_] {
            connection->settle(order, [&] { connection->sendError(serial, wanted, noMemoryForCall()); });
        });
    });
}

void PendingCall::reply(BusBody body) {
    if (answered_.exchange(true, std::memory_order_relaxed)) return;
    try {
        asio::dispatch(
            connection_->strand_, [connection = connection_, serial = serial_, wanted = wanted_,
                                   signature = signature_, order = order_, body = std::move(body)] {
                connection->settle(order, [&] { connection->sendReply(serial, wanted, signature, body); });
            });
    } catch (const std::bad_alloc&) {
        answered_.store(false, std::memory_order_relaxed);  // the exception is to destroy the call
        throw;
    }
}

// --- Own calls ---

tl::expected<void, BusSendFailure> BusConnection::sendOneWay(const Destination& to, const BusBody& body) {
    if (!isOpen() || hungUp_) return tl::unexpected(BusSendFailure::kEnded);
    MessageView header;
    header.type = MessageType::methodCall;
    header.flags = kNoReplyExpected;
    header.path = to.path;
    header.interface = to.interface;
    header.member = to.method;
    header.signature = to.signature;
    return write(header, body);
}

tl::expected<void, BusSendFailure> BusConnection::call(std::string_view header, std::string_view body,
                                                       std::unique_ptr<BusReplyTarget>& target,
                                                       std::vector<UniqueFd> descriptors) {
    if (!isOpen() || hungUp_) return tl::unexpected(BusSendFailure::kEnded);
    if (!descriptors.empty() && state_ == State::ready && !passesDescriptors_)
        return tl::unexpected(BusSendFailure::kInvalid);
    if (header.size() + body.size() > kMaxSentMessage) return tl::unexpected(BusSendFailure::kTooLarge);
    if (!replies_) replies_ = std::make_unique<Replies>();
    const uint32_t serial = nextSerial();
    if (!descriptors.empty()) output_.attach(output_.buffer().size(), std::move(descriptors));
    WireWriter::complete(output_.buffer(), header, serial, body);
    replies_->emplace(serial, std::move(target));
    flushSoon();
    return {};
}

void BusConnection::handleReply(const MessageView& view, std::vector<UniqueFd> descriptors) {
    auto waiting = replies_ ? replies_->extract(view.replySerial) : Replies::node_type();
    if (waiting.empty()) return checkRest(BusMessage(view, {}).reader());
    BusMessage reply(view, std::move(descriptors));
    try {
        waiting.mapped()->answered(reply);
    } catch (const std::exception& exception) {
        TELVORA_LOG(kLogError, "BusConnection(onReply): %s", exception.what());
    }
    checkRest(reply.reader());
}

tl::expected<void, BusSendFailure> BusConnection::write(MessageView header, const BusBody& body) {
    header.serial = nextSerial();
    const size_t before = output_.buffer().size();
    try {
        WireWriter writer(output_.buffer(), header);
        if (!body(writer)) return tl::unexpected(BusSendFailure::kInvalid);
        if (!writer.finish(kMaxSentMessage)) return tl::unexpected(BusSendFailure::kTooLarge);
    } catch (const std::bad_alloc&) {
        output_.buffer().resize(before);  // the messages before it are whole
        throw;
    }
    flushSoon();
    return {};
}

}  // namespace telvora
