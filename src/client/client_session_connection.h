// SPDX-License-Identifier: Apache-2.0
//
// The part of a session that runs on the runtime's thread.
#pragma once

#include <asio/post.hpp>
#include <atomic>
#include <utility>

#include "client/client_session.h"
#include "client/flush_watch.h"
#include "protocol/client_session_methods.h"
#include "protocol/method_call.h"

namespace telvora {

// The reason why a connection's unanswered calls get no answer. Set before the first of their completions
// runs.
using LossReason = std::shared_ptr<std::string>;

// Runs a completion exactly once: with the answer, or from its destructor with a failure.
template <typename T>
class CompletionOnce {
  public:
    CompletionOnce(Completion<T> completion, LossReason loss)
        : completion_(std::move(completion)), loss_(std::move(loss)) {}
    ~CompletionOnce() { fail(CallFailure::Kind::kConnectionLost, *loss_); }
    CompletionOnce(const CompletionOnce&) = delete;
    CompletionOnce& operator=(const CompletionOnce&) = delete;

    void operator()(tl::expected<T, CallFailure> answer) {
        if (const auto completion = std::exchange(completion_, nullptr)) completion(std::move(answer));
    }
    void fail(CallFailure::Kind kind, std::string message) {
        (*this)(tl::unexpected(CallFailure{kind, std::move(message)}));
    }

  private:
    Completion<T> completion_;
    const LossReason loss_;
};

class ClientSession::Connection : public ClientMessageInterface,
                                  public std::enable_shared_from_this<ClientSession::Connection> {
  public:
    Connection(Strand strand, Handlers handlers)
        : strand_(std::move(strand)), handlers_(std::move(handlers)) {}

    bool aggregates() const { return handlers_.aggregationBlock != nullptr; }

    // From connect(), before any other thread knows the connection.
    void start(UniqueFd socket);
    void invalidate();

    // Whether a session above this one can change its states.
    void setFollowsParent(bool follows) { followsParent_ = follows; }

    // Sends one call. `arguments` are those of the method, `T` is as for readAnswer(). Callable from any
    // thread.
    template <typename T, typename Handler, typename... Arguments>
    void call(const Method<Handler>& method, Completion<T> completion, Arguments... arguments) {
        callAfter(
            method, [](Connection&) {}, std::move(completion), std::move(arguments)...);
    }
    // As call(), for calls that may change the session's states.
    template <typename T, typename Handler, typename... Arguments>
    void callThatChangesStates(const Method<Handler>& method, Completion<T> completion,
                               Arguments... arguments) {
        callAfter(
            method, [](Connection& self) { self.flushes_.changeStates(); }, std::move(completion),
            std::move(arguments)...);
    }
    // As call(), for calls that change the states and are answered with them.
    template <typename Handler, typename... Arguments>
    void callForStates(const Method<Handler>& method, Completion<ReportingStates> completion,
                       Arguments... arguments);
    void flush(Completion<FlushAnswer> completion);

  private:
    // Runs `beforeWrite` on the strand right before the arguments are written.
    template <typename T, typename Handler, typename BeforeWrite, typename... Arguments>
    std::shared_ptr<CompletionOnce<T>> callAfter(const Method<Handler>& method, BeforeWrite beforeWrite,
                                                 Completion<T> completion, Arguments... arguments);
    std::shared_ptr<void> takePendingCall();
    template <typename T>
    void notSent(BusSendFailure failure, CompletionOnce<T>& once) const {
        if (failure == BusSendFailure::kEnded) return;  // the destructor of `once` runs the completion
        once.fail(CallFailure::Kind::kInvalid, failure == BusSendFailure::kTooLarge
                                                   ? "the arguments are too large"
                                                   : "the arguments can't be sent");
    }
    void messageToClient(std::optional<Dictionary> sessionInfo, double timestamp, uint16_t category,
                         uint16_t type, std::optional<Dictionary> payload) override;
    void ended(const std::string& reason);
    void probeFlushes();

    const Strand strand_;
    const Handlers handlers_;
    std::atomic<size_t> pendingCalls_ = 0;
    std::atomic<bool> followsParent_ = false;
    const LossReason loss_ = std::make_shared<std::string>("the connection is lost");
    // Used on the strand. The bus owns this connection until its end, not the other way round.
    BusConnection* bus_ = nullptr;
    bool invalidated_ = false;
    bool answered_ = false;  // a call, or called by the daemon
    FlushWatch flushes_;
};

template <typename T, typename Handler, typename BeforeWrite, typename... Arguments>
std::shared_ptr<CompletionOnce<T>> ClientSession::Connection::callAfter(const Method<Handler>& method,
                                                                        BeforeWrite beforeWrite,
                                                                        Completion<T> completion,
                                                                        Arguments... arguments) {
    auto once = std::make_shared<CompletionOnce<T>>(std::move(completion), loss_);
    std::shared_ptr<void> pending = takePendingCall();
    if (!pending) {
        asio::post(strand_, [once] {
            once->fail(CallFailure::Kind::kTooManyCalls, "too many calls wait for their answer");
        });
        return once;
    }
    asio::post(strand_, [self = shared_from_this(), &method, beforeWrite = std::move(beforeWrite),
                         arguments = std::tuple<Arguments...>(std::move(arguments)...), once,
                         pending = std::move(pending)]() mutable {
        if (self->bus_ == nullptr) return;  // the destructor of `once` runs the completion
        beforeWrite(*self);
        auto descriptors = std::apply([](auto&... values) { return takeDescriptors(values...); }, arguments);
        const auto write = [&](WireWriter& body) {
            return std::apply([&](const auto&... values) { return writeArguments(body, method, values...); },
                              arguments);
        };
        const auto sent = self->bus_->call(
            destinationOf(method), write,
            [self, &method, once, pending = std::move(pending)](BusMessage& reply) {
                self->answered_ = true;
                if (const auto error = reply.error()) {
                    const std::string& text = error->message;
                    return once->fail(CallFailure::Kind::kRefused,
                                      text.empty() ? error->name : error->name + ": " + text);
                }
                (*once)(readAnswer<T>(reply, method).map_error([](std::string text) {
                    return CallFailure{CallFailure::Kind::kInvalid, std::move(text)};
                }));
            },
            std::move(descriptors));
        if (!sent) self->notSent(sent.error(), *once);
    });
    return once;
}

template <typename Handler, typename... Arguments>
void ClientSession::Connection::callForStates(const Method<Handler>& method,
                                              Completion<ReportingStates> completion,
                                              Arguments... arguments) {
    const auto number = std::make_shared<size_t>(0);
    callAfter<ReportingStates>(
        method, [number](Connection& self) { *number = self.flushes_.changeStates(); },
        [self = shared_from_this(), number,
         completion = std::move(completion)](tl::expected<ReportingStates, CallFailure> answer) {
            if (answer) self->flushes_.answerStates(*number, *answer);
            if (completion) completion(std::move(answer));
            self->probeFlushes();
        },
        std::move(arguments)...);
}

}  // namespace telvora
