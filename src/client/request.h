// SPDX-License-Identifier: Apache-2.0
//
// One call of libtelvora as a value, so that what happens to all calls alike (their way to the daemon, to a
// recorder or to nowhere, their answers, their failures) stands in one place each.
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

// As a recorder names it.
const char* operationName(Operation operation);

// An operation and those of the arguments that it takes.
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
    bool awaited = true;    // whether the application hears the answer
};

struct Answer {
    telvora_status status = TELVORA_OK;
    std::string message;  // for people, when the status is a failure
    std::optional<PropertyList> value;
    std::optional<TelvoraError> error;
};

using AnswerHandler = std::function<void(Answer answer)>;

// Sends the request; `done` runs as ClientSession's completions do.
void carryOut(const std::shared_ptr<ClientSession>& session, Request request, AnswerHandler done);

}  // namespace telvora
