// SPDX-License-Identifier: Apache-2.0
#include "client/recorder.h"

#include <asio/post.hpp>

namespace telvora {

namespace {

void setIf(Dictionary& dictionary, const char* key, const std::optional<Dictionary>& value) {
    if (value) dictionary.set(key, *value);
}

// The arguments by their names; those that are nothing are left out.
Dictionary describe(const Request& request, bool aggregates) {
    Dictionary call{{"operation", operationName(request.operation)}};
    const auto setMessage = [&] {
        call.set("category", unsigned{request.category});
        call.set("type", unsigned{request.type});
        setIf(call, "payload", request.payload);
    };
    switch (request.operation) {
        case Operation::kSetSessionInfo:
            call.set("sessionInfo", request.sessionInfo);
            call.set("frameworksToCheck",
                     Array(request.frameworksToCheck.begin(), request.frameworksToCheck.end()));
            call.set("hasAggregationBlock", aggregates);
            setIf(call, "userInfo", request.userInfo);
            break;
        case Operation::kFetchStates:
            setIf(call, "userInfo", request.userInfo);
            break;
        case Operation::kSendMessage:
            setMessage();
            break;
        case Operation::kSendMessageDictionary:
            call.set("message", request.message);
            break;
        case Operation::kUploadFile:
            call.set("path", request.path);
            break;
        case Operation::kUploadLogData:
            call.set("records", request.records);
            break;
        case Operation::kSendSingleMessage:
            call.set("sessionInfo", request.sessionInfo);
            setIf(call, "userInfo", request.userInfo);
            setMessage();
            break;
        case Operation::kStartConfig:
        case Operation::kFetchDisplayURL:
        case Operation::kFlushMessages:
        case Operation::kFinishSession:
            break;
    }
    return call;
}

// Whether the status is one of an answer, and not of a call that was never made.
bool isAnswer(telvora_status status) {
    return status == TELVORA_OK || status == TELVORA_ERROR_LOST || status == TELVORA_ERROR_REFUSED;
}

}  // namespace

Recorder::Reply Recorder::defaultReply(Operation operation) {
    switch (operation) {
        case Operation::kStartConfig:
        case Operation::kFetchStates:
            return {TELVORA_OK, Array{}};
        case Operation::kFetchDisplayURL:
            return {TELVORA_OK, "URL not available"};
        case Operation::kUploadFile:
        case Operation::kUploadLogData:
            return {TELVORA_OK, true};
        case Operation::kSendSingleMessage:
            return {TELVORA_OK, "finished"};
        default:
            return {};
    }
}

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
    return replyToAll_ ? *replyToAll_ : defaultReply(request.operation);
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

telvora_status RecordedSession::call(Request request, AnswerHandler done) {
    const bool aggregates = handlers_->message != nullptr;
    Recorder::Reply reply =
        recorder_ ? recorder_->record(request, aggregates) : Recorder::defaultReply(request.operation);
    if (!isAnswer(reply.status)) return reply.status;
    Answer answer{reply.status, {}, std::move(reply.value), std::nullopt};
    if (!request.awaited) {
        done(std::move(answer));
        return TELVORA_OK;
    }
    asio::post(strand(), [answer = std::move(answer), done = std::move(done)] { done(answer); });
    return TELVORA_OK;
}

void RecordedSession::deliver(AggregatedMessage message) {
    if (!handlers_->message) return;
    asio::post(strand(), [handlers = handlers_, work = handlers_->work(), message = std::move(message)] {
        handlers->message(message);
    });
}

}  // namespace telvora
