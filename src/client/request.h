// SPDX-License-Identifier: Apache-2.0
//
// One call of libtelvora as a value, so that all calls share the code that sends them to the daemon or to a
// recorder and that handles their answers and failures. request.cpp describes each operation once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
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

// An operation and its arguments; the other members stay empty. The dictionaries, arrays and names are the
// caller's.
struct Request {
    Operation operation = Operation::kSetSessionInfo;
    const Dictionary* sessionInfo = nullptr;
    const Dictionary* userInfo = nullptr;  // may be null
    std::span<const char* const> frameworksToCheck = {};
    uint16_t category = 0;
    uint16_t type = 0;
    const Dictionary* payload = nullptr;  // may be null
    const Dictionary* message = nullptr;
    const Array* records = nullptr;
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

using AnswerHandler = UniqueFunction<void(Answer answer), 32>;
// An AnswerHandler together with the connection of its call.
using SentAnswerHandler = UniqueFunction<void(Answer answer), 48>;

// The name of the operation for a recorder.
const char* operationName(Operation operation);
std::vector<std::string> frameworkNames(const Request& request);
// The operation's name and its arguments by their names, without absent ones, for a recorder.
Dictionary describe(const Request& request, bool aggregates);
// The value that a recorder answers the operation with by default.
std::optional<PropertyList> defaultAnswer(Operation operation);
// Sends the request; `done` runs as ClientSession's completions do. `restarts`: startConfig of a configured
// session.
void send(const std::shared_ptr<ClientSession>& session, Request&& request, bool restarts,
          SentAnswerHandler&& done);

}  // namespace telvora
