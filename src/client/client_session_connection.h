// SPDX-License-Identifier: Apache-2.0
//
// The connection of a session: its calls and their answers.
//
// The calling thread writes the arguments in their wire form and pushes the call. The library's thread takes
// all calls that wait, and they leave together. No lock is taken between the two. While the daemon does not
// read, the calls wait in the queue, and the output of the connection stays small.
#pragma once

#include <asio/post.hpp>
#include <atomic>
#include <utility>

#include "client/call_queue.h"
#include "client/client_session.h"
#include "client/flush_watch.h"
#include "protocol/client_session_methods.h"
#include "protocol/method_call.h"

namespace telvora {

class ClientSession::Connection : public ClientMessageInterface,
                                  public std::enable_shared_from_this<ClientSession::Connection> {
  public:
    Connection(Strand strand, Handlers handlers, CallLimit callLimit)
        : strand_(std::move(strand)), handlers_(std::move(handlers)), callLimit_(callLimit) {}

    bool aggregates() const { return handlers_.aggregationBlock != nullptr; }

    // From connect(), before any other thread knows the connection.
    void start(UniqueFd socket);
    void invalidate();

    // Whether a session above this one can change its states.
    void setFollowsParent(bool follows) { followsParent_ = follows; }

    // The following send one call each, from any thread. `arguments` are those of the method, T is as for
    // readAnswer().
    template <const auto& kMethod, typename T, typename... Arguments>
    void call(Completion<T>&& completion, Arguments&&... arguments) {
        submit(make<kMethod>([](Connection&) {}, std::move(completion), arguments...));
    }
    // For calls that may change the session's states.
    template <const auto& kMethod, typename T, typename... Arguments>
    void callThatChangesStates(Completion<T>&& completion, Arguments&&... arguments) {
        submit(make<kMethod>([](Connection& self) { self.flushes_.changeStates(); }, std::move(completion),
                             arguments...));
    }
    // For calls that change the states and are answered with them.
    template <const auto& kMethod, typename... Arguments>
    void callForStates(Completion<ReportingStates>&& completion, Arguments&&... arguments) {
        submit(makeForStates<kMethod>(std::move(completion), arguments...));
    }
    void flush(Completion<FlushAnswer> completion);
    // Flushes, then starts, with no other call between them.
    void flushAndStart(Completion<ReportingStates> completion);

  private:
    class Call;
    template <const auto& kMethod, typename T, typename BeforeSend>
    class CallOf;

    // `beforeSend` runs on the strand right before the call is sent.
    template <const auto& kMethod, typename T, typename BeforeSend, typename... Arguments>
    std::unique_ptr<Call> make(BeforeSend beforeSend, Completion<T>&& completion, Arguments&... arguments);
    template <const auto& kMethod, typename... Arguments>
    std::unique_ptr<Call> makeForStates(Completion<ReportingStates>&& completion, Arguments&... arguments);
    std::unique_ptr<Call> makeFlush(Completion<FlushAnswer> completion);
    void submit(std::unique_ptr<Call> call);
    bool admit(std::unique_ptr<Call>& call);
    void wake();
    void sendQueued();
    void messageToClient(std::optional<Dictionary> sessionInfo, double timestamp, uint16_t category,
                         uint16_t type, std::optional<Dictionary> payload) override;
    void ended(const std::string& reason);
    void probeFlushes();

    const Strand strand_;
    const Handlers handlers_;
    const CallLimit callLimit_;
    std::atomic<bool> followsParent_ = false;
    std::atomic<size_t> pendingCalls_ = 0;
    // The members below are used on the strand. The bus owns this connection until its end, not the other way
    // round.
    BusConnection* bus_ = nullptr;
    // The reason why unanswered calls get no answer. Set before the first of their completions runs.
    const char* loss_ = "the connection is lost";
    bool invalidated_ = false;
    bool answered_ = false;  // a call, or called by the daemon
    FlushWatch flushes_;
    CallQueue<Call> queue_;  // the last member: its calls use the others when they fail
};

// One call. The thread that makes it pushes it, and then it belongs to the strand: to the queue of the
// connection, and once it is sent, to the bus. The connection outlives both.
class ClientSession::Connection::Call : public BusReplyTarget {
  public:
    Call(Connection& connection, const std::string& header, tl::expected<std::string, BusSendFailure> body)
        : connection_(connection), header_(header), body_(std::move(body)) {}
    ~Call() override {
        if (isCounted_) connection_.pendingCalls_.fetch_sub(1, std::memory_order_relaxed);
    }

    // Counts the call as pending until its end.
    void count() { isCounted_ = true; }
    // Sends `call`, or fails it.
    static void send(std::unique_ptr<Call> call);
    void answered(BusMessage& reply) final;
    // Runs the completion. Has no effect after the first of the two.
    virtual void fail(CallFailure failure) = 0;

    Call* next = nullptr;

  protected:
    Connection& connection() const { return connection_; }
    std::vector<UniqueFd> descriptors_;

  private:
    virtual void beforeSend() = 0;
    virtual void succeed(BusMessage& reply) = 0;

    Connection& connection_;
    const std::string& header_;
    tl::expected<std::string, BusSendFailure> body_;  // empty once it is sent
    bool isCounted_ = false;
};

template <const auto& kMethod, typename T, typename BeforeSend>
class ClientSession::Connection::CallOf final : public Call {
  public:
    template <typename... Arguments>
    CallOf(Connection& connection, BeforeSend beforeSend, Completion<T>&& completion, Arguments&... arguments)
        : Call(connection, callHeader<kMethod>(), writeBody(kMethod, arguments...)),
          beforeSend_(std::move(beforeSend)),
          completion_(std::move(completion)) {
        descriptors_ = takeDescriptors(arguments...);
    }
    ~CallOf() override { fail({CallFailure::Kind::kConnectionLost, {}}); }

    void fail(CallFailure failure) override {
        if (!completion_) return;
        if (failure.kind == CallFailure::Kind::kConnectionLost) failure.message = connection().loss_;
        complete(tl::unexpected(std::move(failure)));
    }

  private:
    void beforeSend() override { beforeSend_(connection()); }
    void succeed(BusMessage& reply) override {
        if (!completion_) return;
        complete(readAnswer<T>(reply, kMethod).map_error([](std::string text) {
            return CallFailure{CallFailure::Kind::kInvalid, std::move(text)};
        }));
    }
    void complete(tl::expected<T, CallFailure> answer) {
        Completion<T> completion = std::move(completion_);
        completion(std::move(answer));
    }

    [[no_unique_address]] BeforeSend beforeSend_;
    Completion<T> completion_;
};

template <const auto& kMethod, typename T, typename BeforeSend, typename... Arguments>
std::unique_ptr<ClientSession::Connection::Call> ClientSession::Connection::make(BeforeSend beforeSend,
                                                                                 Completion<T>&& completion,
                                                                                 Arguments&... arguments) {
    return std::make_unique<CallOf<kMethod, T, BeforeSend>>(*this, std::move(beforeSend),
                                                            std::move(completion), arguments...);
}

template <const auto& kMethod, typename... Arguments>
std::unique_ptr<ClientSession::Connection::Call> ClientSession::Connection::makeForStates(
    Completion<ReportingStates>&& completion, Arguments&... arguments) {
    const auto number = std::make_shared<size_t>(0);
    Completion<ReportingStates> noting = [this, number, completion = std::move(completion)](
                                             tl::expected<ReportingStates, CallFailure> answer) mutable {
        const bool answered = answer.has_value();
        if (answered) flushes_.answerStates(*number, *answer);
        if (completion) completion(std::move(answer));
        if (answered) probeFlushes();
    };
    return make<kMethod>([number](Connection& self) { *number = self.flushes_.changeStates(); },
                         std::move(noting), arguments...);
}

}  // namespace telvora
