// SPDX-License-Identifier: Apache-2.0
//
// The part of a session that lives on the runtime's thread.
#pragma once

#include <asio/post.hpp>
#include <atomic>
#include <utility>

#include "client/client_session.h"
#include "platform/bus_connection.h"
#include "protocol/property_list_codec.h"

namespace telvora {

// Runs a completion exactly once: with the answer, or, where that never comes, from its destructor.
template <typename T>
class CompletionOnce {
  public:
    explicit CompletionOnce(Completion<T> completion) : completion_(std::move(completion)) {}
    ~CompletionOnce() {
        (*this)(tl::unexpected(CallFailure{CallFailure::Kind::kConnectionLost, "the connection is lost"}));
    }
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
};

class ClientSession::Connection : public std::enable_shared_from_this<ClientSession::Connection> {
  public:
    Connection(Strand strand, Handlers handlers)
        : strand_(std::move(strand)), handlers_(std::move(handlers)) {}

    bool aggregates() const { return handlers_.aggregationBlock != nullptr; }

    // From connect(), before any other thread knows the connection.
    tl::expected<void, std::string> start(UniqueFd socket);
    void invalidate();

    // Sends one call: `write` appends its arguments, `read` makes the answer of the reply's.
    template <typename T, typename Write, typename Read>
    void call(const BusInterface& interface, size_t method, Write write, Read read,
              Completion<T> completion) {
        auto once = std::make_shared<CompletionOnce<T>>(std::move(completion));
        if (pendingCalls_.fetch_add(1, std::memory_order_relaxed) >= kMaxPendingCalls) {
            pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
            return asio::post(strand_, [once] {
                once->fail(CallFailure::Kind::kTooManyCalls, "too many calls wait for their answer");
            });
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
            self->send(std::move(message), [read = std::move(read), once, pending = std::move(pending)](
                                               BusMessage& reply) { finish(reply, read, *once); });
        });
    }

  private:
    BusMessage newCall(const BusInterface& interface, size_t method);
    void send(BusMessage message, BusConnection::ReplyHandler handler);
    std::optional<BusError> messageToClient(BusMessage& call);
    void ended(const std::string& reason);
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
    // Used on the strand. The bus owns this connection until its end, not the other way round.
    BusConnection* bus_ = nullptr;
    bool invalidated_ = false;
};

}  // namespace telvora
