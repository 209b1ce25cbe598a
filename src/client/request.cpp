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
Completion<T> answering(SentAnswerHandler&& done) {
    return [done = std::move(done)](tl::expected<T, CallFailure> result) mutable {
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

// Two calls: the first turns the open file into a token, the second sends the token with the file's URL.
void upload(const std::shared_ptr<ClientSession>& session, Request&& request, SentAnswerHandler&& done) {
    auto issued = [session = std::weak_ptr(session), path = request.path,
                   done = std::move(done)](tl::expected<std::string, CallFailure> token) mutable {
        if (!token) return done(answerOf(token.error()));
        const auto still = session.lock();
        if (!still) return done({TELVORA_ERROR_LOST, "the connection is lost", std::nullopt, std::nullopt});
        still->uploadFile(fileURLOfPath(path), *token, answering<bool>(std::move(done)));
    };
    session->issueFileExtension(request.path, std::move(request.file), std::move(issued));
}

// --- The operations ---

enum Arguments : unsigned {
    kNoArguments = 0,
    kInfo = 1,
    kFrameworks = 2,  // and whether the session aggregates
    kUser = 4,
    kPayload = 8,  // with category and type
    kMessage = 16,
    kPath = 32,
    kRecords = 64,
};

using Session = std::shared_ptr<ClientSession>;
using Text = std::optional<std::string>;

struct Description {
    Operation operation;
    const char* name;
    unsigned arguments;
    PropertyList (*defaultAnswer)();  // null: an answer without a value
    void (*send)(const Session& session, Request&& request, SentAnswerHandler&& done);
};

PropertyList noStates() {
    return Array{};
}
PropertyList noURL() {
    return "URL not available";
}
PropertyList uploaded() {
    return true;
}
PropertyList finished() {
    return "finished";
}

constexpr Description kOperations[] = {
    {Operation::kSetSessionInfo, "setSessionInfo", kInfo | kFrameworks | kUser, nullptr,
     [](const Session& session, Request&& request, SentAnswerHandler&& done) {
         session->setSessionInfo(*request.sessionInfo, request.userInfo, frameworkNames(request),
                                 answering<void>(std::move(done)));
     }},
    {Operation::kStartConfig, "startConfig", kNoArguments, noStates,
     [](const Session& session, Request&&, SentAnswerHandler&& done) {
         session->startConfig(answering<ReportingStates>(std::move(done)));
     }},
    {Operation::kFetchStates, "fetchStates", kUser, noStates,
     [](const Session& session, Request&& request, SentAnswerHandler&& done) {
         session->fetchStates(request.userInfo, answering<ReportingStates>(std::move(done)));
     }},
    {Operation::kFetchDisplayURL, "fetchDisplayURL", kNoArguments, noURL,
     [](const Session& session, Request&&, SentAnswerHandler&& done) {
         session->fetchDisplayURL(answering<std::string>(std::move(done)));
     }},
    {Operation::kSendMessage, "sendMessage", kPayload, nullptr,
     [](const Session& session, Request&& request, SentAnswerHandler&& done) {
         session->sendMessage(request.category, request.type, request.payload,
                              answering<Text>(std::move(done)));
     }},
    {Operation::kSendMessageDictionary, "sendMessage", kMessage, nullptr,
     [](const Session& session, Request&& request, SentAnswerHandler&& done) {
         session->sendMessage(*request.message, answering<Text>(std::move(done)));
     }},
    {Operation::kFlushMessages, "flushMessages", kNoArguments, nullptr,
     [](const Session& session, Request&&, SentAnswerHandler&& done) {
         session->flushMessages(answering<FlushAnswer>(std::move(done)));
     }},
    {Operation::kFinishSession, "finishSession", kNoArguments, nullptr,
     [](const Session& session, Request&&, SentAnswerHandler&& done) {
         session->finishSession(answering<Text>(std::move(done)));
     }},
    {Operation::kUploadFile, "uploadFile", kPath, uploaded, upload},
    {Operation::kUploadLogData, "uploadLogData", kRecords, uploaded,
     [](const Session& session, Request&& request, SentAnswerHandler&& done) {
         session->uploadLogData(*request.records, answering<UploadAnswer>(std::move(done)));
     }},
    {Operation::kSendSingleMessage, "sendSingleMessage", kInfo | kUser | kPayload, finished,
     [](const Session& session, Request&& request, SentAnswerHandler&& done) {
         session->sendSingleMessage(*request.sessionInfo, request.userInfo, request.category, request.type,
                                    request.payload, answering<std::string>(std::move(done)));
     }},
};

consteval bool eachIsAtItsIndex() {
    for (size_t i = 0; i < std::size(kOperations); ++i)
        if (kOperations[i].operation != static_cast<Operation>(i)) return false;
    return true;
}
static_assert(eachIsAtItsIndex());

const Description& descriptionOf(Operation operation) {
    return kOperations[static_cast<size_t>(operation)];
}

}  // namespace

const char* operationName(Operation operation) {
    return descriptionOf(operation).name;
}

Dictionary describe(const Request& request, bool aggregates) {
    const Description& operation = descriptionOf(request.operation);
    const auto has = [&operation](Arguments arguments) { return (operation.arguments & arguments) != 0; };
    Dictionary call{{"operation", operation.name}};
    if (has(kInfo)) call.set("sessionInfo", *request.sessionInfo);
    if (has(kUser) && request.userInfo) call.set("userInfo", *request.userInfo);
    if (has(kFrameworks)) {
        const std::vector<std::string> names = frameworkNames(request);
        call.set("frameworksToCheck", Array(names.begin(), names.end()));
        call.set("hasAggregationBlock", aggregates);
    }
    if (has(kPayload)) {
        call.set("category", unsigned{request.category});
        call.set("type", unsigned{request.type});
        if (request.payload) call.set("payload", *request.payload);
    }
    if (has(kMessage)) call.set("message", *request.message);
    if (has(kPath)) call.set("path", request.path);
    if (has(kRecords)) call.set("records", *request.records);
    return call;
}

std::vector<std::string> frameworkNames(const Request& request) {
    return {request.frameworksToCheck.begin(), request.frameworksToCheck.end()};
}

std::optional<PropertyList> defaultAnswer(Operation operation) {
    const auto answer = descriptionOf(operation).defaultAnswer;
    return answer != nullptr ? std::optional(answer()) : std::nullopt;
}

void send(const std::shared_ptr<ClientSession>& session, Request&& request, bool restarts,
          SentAnswerHandler&& done) {
    if (restarts) return session->restartConfig(answering<ReportingStates>(std::move(done)));
    descriptionOf(request.operation).send(session, std::move(request), std::move(done));
}

}  // namespace telvora
