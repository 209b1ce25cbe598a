// SPDX-License-Identifier: Apache-2.0
//
// The methods of client_session_interface.h as they appear on the wire. com.zandor.telvorad.xml beside this
// file is the same as published to authors of clients; a test compares the two.
#pragma once

#include "protocol/client_session_interface.h"
#include "protocol/method.h"

namespace telvora {

// --- Exported by the daemon ---

inline constexpr auto kSetSessionInfo =
    method("SetSessionInfo", &ClientSessionInterface::setSessionInfo,
           {"sessionInfo", "userInfo", "frameworksToCheck", "hasAggregationBlock"}, {});
inline constexpr auto kStartConfig = exclusive(method(
    "StartConfig", &ClientSessionInterface::startConfigWithCompletionHandler, {}, {"reportingStates"}));
inline constexpr auto kFetchStates = method("FetchStates", &ClientSessionInterface::fetchStatesWithUserInfo,
                                            {"userInfo"}, {"reportingStates"});
inline constexpr auto kFetchDisplayURL =
    method("FetchDisplayURL", &ClientSessionInterface::fetchDisplayURL, {}, {"displayURL"});
inline constexpr auto kSendMessageWithCategory =
    method("SendMessageWithCategory", &ClientSessionInterface::sendMessageWithCategory,
           {"category", "type", "payload"}, {"answer"});
inline constexpr auto kSendMessageWithDictionary = method(
    "SendMessageWithDictionary", &ClientSessionInterface::sendMessageWithDictionary, {"message"}, {"answer"});
inline constexpr auto kFlushMessages =
    method("FlushMessages", &ClientSessionInterface::flushMessagesWithCompletion, {}, {"answer", "error"});
inline constexpr auto kFinishSession =
    method("FinishSession", &ClientSessionInterface::finishSessionWithReply, {}, {"answer"});
inline constexpr auto kUploadFileAtPath =
    exclusive(method("UploadFileAtPath", &ClientSessionInterface::uploadFileAtPath,
                     {"fileURL", "extensionToken"}, {"uploaded"}));
inline constexpr auto kUploadLogData = exclusive(
    method("UploadLogData", &ClientSessionInterface::uploadLogData, {"records"}, {"uploaded", "error"}));
inline constexpr auto kSendMessageWithSessionInfo =
    exclusive(method("SendMessageWithSessionInfo", &ClientSessionInterface::sendMessageWithSessionInfo,
                     {"sessionInfo", "userInfo", "category", "type", "payload"}, {"outcome"}));

inline constexpr std::tuple kClientSessionMethods{kSetSessionInfo,
                                                  kStartConfig,
                                                  kFetchStates,
                                                  kFetchDisplayURL,
                                                  kSendMessageWithCategory,
                                                  kSendMessageWithDictionary,
                                                  kFlushMessages,
                                                  kFinishSession,
                                                  kUploadFileAtPath,
                                                  kUploadLogData,
                                                  kSendMessageWithSessionInfo};

inline constexpr auto kIssueFileExtension =
    method("IssueFileExtension", &SandboxExtensionInterface::issueFileExtension, {"path", "file"},
           {"extensionToken"});

inline constexpr std::tuple kSandboxExtensionMethods{kIssueFileExtension};

// --- Exported by the client; called without expecting an answer ---

inline constexpr auto kSendMessageToClient =
    method("SendMessageToClient", &ClientMessageInterface::messageToClient,
           {"sessionInfo", "timestamp", "category", "type", "payload"}, {});

inline constexpr std::tuple kClientMessageMethods{kSendMessageToClient};

}  // namespace telvora
