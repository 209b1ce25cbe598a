// SPDX-License-Identifier: Apache-2.0
#include "client/recorder.h"

#include <asio/post.hpp>

namespace telvora {

namespace {

// Whether a call with this status was sent.
bool isAnswer(telvora_status status) {
    return status == TELVORA_OK || status == TELVORA_ERROR_LOST || status == TELVORA_ERROR_REFUSED;
}

}  // namespace

void Recorder::setReply(const std::optional<std::string>& operation, Reply reply) {
    const MutexLock lock(lock_);
    if (operation) {
        replies_[*operation] = std::move(reply);
    } else {
        replies_.clear();
        replyToAll_ = std::move(reply);
    }
}

Recorder::Reply Recorder::record(const Request& request, bool aggregates) {
    const MutexLock lock(lock_);
    calls_.push_back(describe(request, aggregates));
    if (const auto set = replies_.find(operationName(request.operation)); set != replies_.end())
        return set->second;
    return replyToAll_ ? *replyToAll_ : Reply{TELVORA_OK, defaultAnswer(request.operation)};
}

void Recorder::addSession(std::weak_ptr<RecordedSession> session) {
    const MutexLock lock(lock_);
    std::erase_if(sessions_, [](const auto& known) { return known.expired(); });
    sessions_.push_back(std::move(session));
}

void Recorder::deliver(const AggregatedMessage& message) {
    std::vector<std::weak_ptr<RecordedSession>> sessions;
    {
        const MutexLock lock(lock_);
        sessions = sessions_;
    }
    for (const auto& session : sessions) {
        if (const auto still = session.lock()) still->deliver(message);
    }
}

size_t Recorder::callCount() const {
    const MutexLock lock(lock_);
    return calls_.size();
}

std::optional<Dictionary> Recorder::call(size_t index) const {
    const MutexLock lock(lock_);
    if (index >= calls_.size()) return std::nullopt;
    return calls_[index];
}

void Recorder::clear() {
    const MutexLock lock(lock_);
    calls_.clear();
}

RecordedSession::RecordedSession(ClientRuntime& runtime, std::shared_ptr<Recorder> recorder,
                                 Handlers handlers)
    : runtime_(runtime),
      recorder_(std::move(recorder)),
      handlers_(std::make_shared<const Handlers>(std::move(handlers))) {}

const Strand& RecordedSession::strand() {
    const MutexLock lock(lock_);
    if (!strand_) strand_ = runtime_.makeStrand();
    return *strand_;
}

telvora_status RecordedSession::call(Request&& request, AnswerHandler&& done) {
    const bool aggregates = handlers_->message != nullptr;
    Recorder::Reply reply = recorder_ ? recorder_->record(request, aggregates)
                                      : Recorder::Reply{TELVORA_OK, defaultAnswer(request.operation)};
    if (!isAnswer(reply.status)) return reply.status;
    Answer answer{reply.status, {}, std::move(reply.value), std::nullopt};
    if (!request.awaited) {
        done(std::move(answer));
        return TELVORA_OK;
    }
    asio::post(strand(),
               [answer = std::move(answer), done = std::move(done)]() mutable { done(std::move(answer)); });
    return TELVORA_OK;
}

void RecordedSession::deliver(AggregatedMessage message) {
    if (!handlers_->message) return;
    asio::post(strand(), [handlers = handlers_, work = handlers_->work(), message = std::move(message)] {
        handlers->message(message);
    });
}

}  // namespace telvora
