// SPDX-License-Identifier: Apache-2.0
#include "client/client_session.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "client/client_session_connection.h"
#include "telvora/keys.h"

namespace telvora {

std::string ClientSession::defaultSocketPath() {
    if (const char* path = std::getenv("TELVORA_SOCKET"); path != nullptr && *path != '\0') return path;
    const char* directories = std::getenv("RUNTIME_DIRECTORY");
    std::string directory = directories != nullptr ? directories : "";
    directory = directory.substr(0, directory.find(':'));
    if (directory.empty()) directory = "/run/telvora";
    return directory + "/" + kTelvoradSocketName;
}

tl::expected<std::unique_ptr<ClientSession>, std::string> ClientSession::connect(
    ClientRuntime& runtime, const std::string& socketPath, Handlers handlers, FullBacklog fullBacklog,
    CallLimit callLimit) {
    auto socket = connectToSocket(socketPath, fullBacklog);
    if (!socket) return tl::unexpected(socket.error());
    auto connection = std::make_shared<Connection>(runtime.makeStrand(), std::move(handlers), callLimit);
    connection->start(std::move(*socket));
    return std::unique_ptr<ClientSession>(new ClientSession(runtime, socketPath, std::move(connection)));
}

ClientSession::ClientSession(ClientRuntime& runtime, std::string socketPath,
                             std::shared_ptr<Connection> connection)
    : runtime_(runtime), socketPath_(std::move(socketPath)), connection_(std::move(connection)) {}

std::optional<Dictionary> sessionInfoOfChild(const Dictionary& parent, uint32_t sessionID) {
    const Dictionary* token = parent.dictionary(kTelvoraSessionInfoHierarchyToken);
    if (token == nullptr || token->string(kTelvoraHierarchyTokenTokenID) == nullptr) return std::nullopt;
    Dictionary below = *token;
    constexpr int64_t kDeepest = std::numeric_limits<int64_t>::max() - 1;
    const int64_t level = token->integer(kTelvoraHierarchyTokenLevel).value_or(0);
    below.set(kTelvoraHierarchyTokenLevel, std::min(level, kDeepest) + 1);
    Dictionary info = parent;
    info.set(kTelvoraSessionInfoHierarchyToken, std::move(below));
    info.set(kTelvoraSessionInfoSessionID, sessionID);
    return info;
}

tl::expected<std::unique_ptr<ClientSession>, std::string> ClientSession::child(uint32_t sessionID,
                                                                               OptionalDictionary userInfo,
                                                                               Completion<void> completion,
                                                                               Handlers handlers) const {
    std::optional<Dictionary> info;
    std::vector<std::string> frameworks;
    {
        const MutexLock lock(lock_);
        info = sessionInfoOfChild(sessionInfo_, sessionID);
        frameworks = frameworksToCheck_;
    }
    if (!info) return tl::unexpected(std::string("the session belongs to no hierarchy"));
    auto session = connect(runtime_, socketPath_, std::move(handlers));
    if (!session) return session;
    (*session)->setSessionInfo(*info, userInfo, std::move(frameworks), std::move(completion));
    return session;
}

ClientSession::~ClientSession() {
    connection_->invalidate();
}

void ClientSession::invalidate() {
    connection_->invalidate();
}

void ClientSession::setSessionInfo(const Dictionary& sessionInfo, OptionalDictionary userInfo,
                                   std::vector<std::string> frameworksToCheck, Completion<void> completion) {
    const Dictionary* token = sessionInfo.dictionary(kTelvoraSessionInfoHierarchyToken);
    connection_->setFollowsParent(token != nullptr &&
                                  token->integer(kTelvoraHierarchyTokenLevel).value_or(0) != 0);
    connection_->call<kSetSessionInfo>(std::move(completion), sessionInfo, userInfo.get(), frameworksToCheck,
                                       connection_->aggregates());
    Dictionary copy = sessionInfo;
    const MutexLock lock(lock_);
    std::swap(sessionInfo_, copy);
    std::swap(frameworksToCheck_, frameworksToCheck);
}

void ClientSession::startConfig(Completion<ReportingStates> completion) {
    connection_->callForStates<kStartConfig>(std::move(completion));
}

void ClientSession::restartConfig(Completion<ReportingStates> completion) {
    connection_->flushAndStart(std::move(completion));
}

void ClientSession::fetchStates(OptionalDictionary userInfo, Completion<ReportingStates> completion) {
    connection_->callForStates<kFetchStates>(std::move(completion), userInfo.get());
}

void ClientSession::fetchDisplayURL(Completion<std::string> completion) {
    connection_->call<kFetchDisplayURL>(std::move(completion));
}

void ClientSession::sendMessage(uint16_t category, uint16_t type, OptionalDictionary payload,
                                Completion<std::optional<std::string>> completion) {
    connection_->call<kSendMessageWithCategory>(std::move(completion), category, type, payload.get());
}

void ClientSession::sendMessage(const Dictionary& message,
                                Completion<std::optional<std::string>> completion) {
    connection_->call<kSendMessageWithDictionary>(std::move(completion), message);
}

void ClientSession::flushMessages(Completion<FlushAnswer> completion) {
    connection_->flush(std::move(completion));
}

void ClientSession::finishSession(Completion<std::optional<std::string>> completion) {
    connection_->call<kFinishSession>(std::move(completion));
}

void ClientSession::issueFileExtension(const std::string& path, UniqueFd file,
                                       Completion<std::string> completion) {
    connection_->call<kIssueFileExtension>(std::move(completion), path, file);
}

void ClientSession::uploadFile(const std::string& fileURL, const std::string& extensionToken,
                               Completion<bool> completion) {
    connection_->call<kUploadFileAtPath>(std::move(completion), fileURL, extensionToken);
}

void ClientSession::uploadLogData(const Array& records, Completion<UploadAnswer> completion) {
    connection_->call<kUploadLogData>(std::move(completion), records);
}

void ClientSession::sendSingleMessage(const Dictionary& sessionInfo, OptionalDictionary userInfo,
                                      uint16_t category, uint16_t type, OptionalDictionary payload,
                                      Completion<std::string> completion) {
    connection_->callThatChangesStates<kSendMessageWithSessionInfo>(
        std::move(completion), sessionInfo, userInfo.get(), category, type, payload.get());
}

}  // namespace telvora
