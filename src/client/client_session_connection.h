// SPDX-License-Identifier: Apache-2.0
//
// The part of a session that lives on the runtime's thread.
#pragma once

#include <asio/post.hpp>
#include <atomic>
#include <utility>

#include "bus/bus_connection.h"
#include "client/client_session.h"
#include "client/flush_watch.h"
#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"

namespace telvora {

// Why a connection's unanswered calls get no answer. Set before the first of them is told.
using LossReason = std::shared_ptr<std::string>;

// Runs a completion exactly once: with the answer, or, where that never comes, from its destructor.
template <typename T>
class CompletionOnce {
  public:
    CompletionOnce(Completion<T> completion, LossReason loss)
        : completion_(std::move(completion)), loss_(std::move(loss)) {}
    ~CompletionOnce() { (*this)(tl::unexpected(CallFailure{CallFailure::Kind::kConnectionLost, *loss_})); }
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

class ClientSession::Connection : public std::enable_shared_from_this<ClientSession::Connection> {
  public:
    Connection(Strand strand, Handlers handlers)
        : strand_(std::move(strand)), handlers_(std::move(handlers)) {}

    bool aggregates() const { return handlers_.aggregationBlock != nullptr; }

    // From connect(), before any other thread knows the connection.
    tl::expected<void, std::string> start(UniqueFd socket);
    void invalidate();

    // Whether a session above this one can change its states.
    void setFollowsParent(bool follows) { followsParent_ = follows; }
    // On the strand, as a call is written that may change the states.
    size_t changeStates() { return flushes_.changeStates(); }
    // These are call()s.
    template <typename Write>
    void callForStates(SessionMethod method, Write write, Completion<ReportingStates> completion);
    void flush(Completion<FlushAnswer> completion);

    // Sends one call: `write` appends its arguments on the strand, `read` makes the answer of the reply's.
    template <typename T, typename Write, typename Read>
    std::shared_ptr<CompletionOnce<T>> call(const BusInterface& interface, size_t method, Write write,
                                            Read read, Completion<T> completion) {
        auto once = std::make_shared<CompletionOnce<T>>(std::move(completion), loss_);
        if (pendingCalls_.fetch_add(1, std::memory_order_relaxed) >= kMaxPendingCalls) {
            pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
            asio::post(strand_, [once] {
                once->fail(CallFailure::Kind::kTooManyCalls, "too many calls wait for their answer");
            });
            return once;
        }
        // Counts the call as pending for as long as anything of it exists.
        std::shared_ptr<void> pending(nullptr, [self = shared_from_this()](void*) {
            self->pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
        });
        asio::post(strand_, [self = shared_from_this(), &interface, method, write = std::move(write),
                             read = std::move(read), once, pending = std::move(pending)]() mutable {
            BusMessage message = self->newCall(interface, method);
            if (!message) return;  // and `once` tells
            ArgumentWriter out(message);
            write(out);
            if (out.result() < 0) {
                return once->fail(CallFailure::Kind::kInvalid, "the arguments can't be sent");
            }
            if (message.bodySize() > kMaxCallBytes) {
                return once->fail(CallFailure::Kind::kInvalid, "the arguments are too large");
            }
            self->send(std::move(message),
                       [self, read = std::move(read), once, pending = std::move(pending)](BusMessage& reply) {
                           self->answered_ = true;
                           finish(reply, read, *once);
                       });
        });
        return once;
    }

  private:
    BusMessage newCall(const BusInterface& interface, size_t method);
    void send(BusMessage message, BusConnection::ReplyHandler handler);
    std::optional<BusError> messageToClient(BusMessage& call);
    void ended(const std::string& reason);
    void probeFlushes();
    static std::string errorText(const BusMessage& reply);

    template <typename T, typename Read>
    static void finish(BusMessage& reply, const Read& read, CompletionOnce<T>& completion) {
        if (reply.error() != nullptr) return completion.fail(CallFailure::Kind::kRefused, errorText(reply));
        ArgumentReader in(reply);
        if constexpr (std::is_void_v<T>) {
            completion({});
        } else {
            T answer = read(in);
            if (!in.ok()) return completion.fail(CallFailure::Kind::kInvalid, in.failure());
            completion(std::move(answer));
        }
    }

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

template <typename Write>
void ClientSession::Connection::callForStates(SessionMethod method, Write write,
                                              Completion<ReportingStates> completion) {
    const auto number = std::make_shared<size_t>(0);
    call<ReportingStates>(
        clientSessionBusInterface(), static_cast<size_t>(method),
        [self = shared_from_this(), number, write = std::move(write)](ArgumentWriter& out) {
            *number = self->changeStates();
            write(out);
        },
        [](ArgumentReader& in) { return in.optionalStrings(); },
        [self = shared_from_this(), number,
         completion = std::move(completion)](tl::expected<ReportingStates, CallFailure> answer) {
            if (answer) self->flushes_.answerStates(*number, *answer);
            if (completion) completion(std::move(answer));
            self->probeFlushes();
        });
}

}  // namespace telvora
