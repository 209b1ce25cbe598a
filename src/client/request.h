// SPDX-License-Identifier: Apache-2.0
//
// One call of libtelvora as a value, so that all calls share the code that sends them to the daemon or to a
// recorder and that handles their answers and failures. request.cpp describes each operation once.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/client_session.h"
#include "telvora/telvora.h"

namespace telvora {

enum class Operation {
    kSetSessionInfo,
    kStartConfig,
    kFetchStates,
    kFetchDisplayURL,
    kSendMessage,
    kSendMessageDictionary,
    kFlushMessages,
    kFinishSession,
    kUploadFile,
    kUploadLogData,
    kSendSingleMessage,
};

// An operation and its arguments; the other members stay empty.
struct Request {
    Operation operation = Operation::kSetSessionInfo;
    Dictionary sessionInfo = {};
    std::optional<Dictionary> userInfo = {};
    std::vector<std::string> frameworksToCheck = {};
    uint16_t category = 0;
    uint16_t type = 0;
    std::optional<Dictionary> payload = {};
    Dictionary message = {};
    Array records = {};
    std::string path = {};  // absolute
    UniqueFd file = {};     // open at `path`, for a session with the daemon
    bool awaited = true;    // whether the application takes the answer
};

struct Answer {
    telvora_status status = TELVORA_OK;
    std::string message;  // for people, when the status is a failure
    std::optional<PropertyList> value;
    std::optional<TelvoraError> error;
};

using AnswerHandler = std::function<void(Answer answer)>;

// The name of the operation for a recorder.
const char* operationName(Operation operation);
// The operation's name and its arguments by their names, without absent ones, for a recorder.
Dictionary describe(const Request& request, bool aggregates);
// The value that a recorder answers the operation with by default.
std::optional<PropertyList> defaultAnswer(Operation operation);
// Sends the request; `done` runs as ClientSession's completions do.
void send(const std::shared_ptr<ClientSession>& session, Request request, AnswerHandler done);

}  // namespace telvora
