// SPDX-License-Identifier: Apache-2.0
#include "client/request.h"

#include "util/file_url.h"

namespace telvora {

namespace {

telvora_status statusOf(CallFailure::Kind kind) {
    switch (kind) {
        case CallFailure::Kind::kConnectionLost:
            return TELVORA_ERROR_LOST;
        case CallFailure::Kind::kTooManyCalls:
            return TELVORA_ERROR_BUSY;
        case CallFailure::Kind::kInvalid:
            return TELVORA_ERROR_INVALID;
        case CallFailure::Kind::kRefused:
            return TELVORA_ERROR_REFUSED;
    }
    return TELVORA_ERROR_INVALID;
}

Answer answerOf(const CallFailure& failure) {
    return {statusOf(failure.kind), failure.message, std::nullopt, std::nullopt};
}

Answer answerOf(PropertyList value, std::optional<TelvoraError> error = std::nullopt) {
    return {TELVORA_OK, {}, std::move(value), std::move(error)};
}

Answer answerOf(std::optional<std::string> text) {
    return text ? answerOf(PropertyList(std::move(*text))) : Answer();
}

Answer answerOf(const ReportingStates& states) {
    return states ? answerOf(Array(states->begin(), states->end())) : Answer();
}

Answer answerOf(FlushAnswer flush) {
    Answer answer = answerOf(std::move(flush.answer));
    answer.error = std::move(flush.error);
    return answer;
}

Answer answerOf(UploadAnswer upload) {
    return answerOf(PropertyList(upload.uploaded), std::move(upload.error));
}

template <typename T>
Completion<T> answering(AnswerHandler done) {
    return [done = std::move(done)](tl::expected<T, CallFailure> result) {
        if (!result) return done(answerOf(result.error()));
        if constexpr (std::is_void_v<T>) {
            done({});
        } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, bool>) {
            done(answerOf(PropertyList(std::move(*result))));
        } else {
            done(answerOf(std::move(*result)));
        }
    };
}

// Two calls: the daemon gives a token for the open file, and gets it back with the file's URL.
void upload(const std::shared_ptr<ClientSession>& session, Request request, AnswerHandler done) {
    auto issued = [session = std::weak_ptr(session), path = request.path,
                   done = std::move(done)](tl::expected<std::string, CallFailure> token) {
        if (!token) return done(answerOf(token.error()));
        const auto still = session.lock();
        if (!still) return done({TELVORA_ERROR_LOST, "the connection is lost", std::nullopt, std::nullopt});
        still->uploadFile(fileURLOfPath(path), std::move(*token), answering<bool>(done));
    };
    session->issueFileExtension(std::move(request.path), std::move(request.file), std::move(issued));
}

}  // namespace

const char* operationName(Operation operation) {
    switch (operation) {
        case Operation::kSetSessionInfo:
            return "setSessionInfo";
        case Operation::kStartConfig:
            return "startConfig";
        case Operation::kFetchStates:
            return "fetchStates";
        case Operation::kFetchDisplayURL:
            return "fetchDisplayURL";
        case Operation::kSendMessage:
        case Operation::kSendMessageDictionary:
            return "sendMessage";
        case Operation::kFlushMessages:
            return "flushMessages";
        case Operation::kFinishSession:
            return "finishSession";
        case Operation::kUploadFile:
            return "uploadFile";
        case Operation::kUploadLogData:
            return "uploadLogData";
        case Operation::kSendSingleMessage:
            return "sendSingleMessage";
    }
    return "";
}

void carryOut(const std::shared_ptr<ClientSession>& session, Request request, AnswerHandler done) {
    using Text = std::optional<std::string>;
    ClientSession& s = *session;
    switch (request.operation) {
        case Operation::kSetSessionInfo:
            return s.setSessionInfo(std::move(request.sessionInfo), std::move(request.userInfo),
                                    std::move(request.frameworksToCheck), answering<void>(std::move(done)));
        case Operation::kStartConfig:
            return s.startConfig(answering<ReportingStates>(std::move(done)));
        case Operation::kFetchStates:
            return s.fetchStates(std::move(request.userInfo), answering<ReportingStates>(std::move(done)));
        case Operation::kFetchDisplayURL:
            return s.fetchDisplayURL(answering<std::string>(std::move(done)));
        case Operation::kSendMessage:
            return s.sendMessage(request.category, request.type, std::move(request.payload),
                                 answering<Text>(std::move(done)));
        case Operation::kSendMessageDictionary:
            return s.sendMessage(std::move(request.message), answering<Text>(std::move(done)));
        case Operation::kFlushMessages:
            return s.flushMessages(answering<FlushAnswer>(std::move(done)));
        case Operation::kFinishSession:
            return s.finishSession(answering<Text>(std::move(done)));
        case Operation::kUploadFile:
            return upload(session, std::move(request), std::move(done));
        case Operation::kUploadLogData:
            return s.uploadLogData(std::move(request.records), answering<UploadAnswer>(std::move(done)));
        case Operation::kSendSingleMessage:
            return s.sendSingleMessage(std::move(request.sessionInfo), std::move(request.userInfo),
                                       request.category, request.type, std::move(request.payload),
                                       answering<std::string>(std::move(done)));
    }
}

}  // namespace telvora
