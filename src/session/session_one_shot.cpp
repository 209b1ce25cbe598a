// SPDX-License-Identifier: Apache-2.0
//
// One-shot messages: a report that is sent through backends made for it alone.
#include "session/telvorad_session.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

void sendThrough(TelvoraBackend& backend, const MessageLog& messageLog, TimeValue timestamp,
                 uint16_t category, uint16_t type, const std::optional<Dictionary>& payload,
                 const std::string& key, std::optional<uid_t> user) {
    backend.updateState();
    if (const auto excluded = backend.exclusionOf(category, "sendMessageWithSessionInfo")) {
        return backend.reports().accept(*excluded);
    }
    const std::optional<std::string> answer =
        backend.sendMessage(payload, timestamp, category, type, SendFlag{0});
    if (answer)
        TelvoradUtil::writeToLogFile(messageLog, {"[", key, " -> sendMessageWithSessionInfo] ", *answer},
                                     user);
}

}  // namespace

void TelvoradSession::sendMessageWithSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                                 uint16_t category, uint16_t type,
                                                 std::optional<Dictionary> payload, TextReply reply) {
    if (!sessionInfo.contains(kTelvoraSessionInfoClientType) ||
        !sessionInfo.contains(kTelvoraSessionInfoSessionID)) {
        TELVORA_LOG(kLogError, "sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo");
        countUnsent(ReportOutcome::incomplete);
        return;
    }
    const UserInfo givenUserInfo = userInfo ? std::make_shared<const Dictionary>(*userInfo) : nullptr;
    takeSessionInfo(std::move(sessionInfo));
    receivedUserInfo(std::move(userInfo));
    TELVORA_LOG(kLogDebug, "sendMessageWithSessionInfo: Sending message with session info for session %u",
                sessionID());
    withStorebag([self = shared_from_this(), givenUserInfo, category, type, payload = std::move(payload),
                  reply = std::move(reply)](const auto& storebag) {
        if (!storebag) {
            self->countUnsent(ReportOutcome::notConfigured);
            if (reply) reply("storebag not available");
            return;
        }
        sendMessageWithSessionInfo(self->services_, *self->sessionInfo(), givenUserInfo, storebag, category,
                                   type, payload, self->accounts_);
        if (reply) reply("finished");
    });
}

void TelvoradSession::sendMessageWithSessionInfo(const SessionServices& services,
                                                 const Dictionary& sessionInfo, const UserInfo& userInfo,
                                                 const std::shared_ptr<const Dictionary>& storebag,
                                                 uint16_t category, uint16_t type,
                                                 const std::optional<Dictionary>& payload,
                                                 const std::shared_ptr<ClientAccounts>& accounts) {
    TELVORA_LOG(kLogDebug, "sendMessageWithSessionInfo: Sending single message with sessionID %ld",
                static_cast<long>(sessionInfo.wrappedInteger(kTelvoraSessionInfoSessionID).value_or(0)));
    if (!storebag) {
        // The "R" is part of the line, for which log readers search.
        TELVORA_LOG(kLogError,
                    "RsendMessageWithSessionInfo: Attempted to send message with one or more nil parameters");
        return;
    }
    const std::optional<BackendDictionary> backends =
        TelvoradUtil::createBackends(services.backendServices, services.framework, storebag, &sessionInfo,
                                     userInfo, uniqueDeviceID(services.backendServices.identity), accounts);
    if (!backends) {
        TELVORA_LOG(kLogError, "sendMessageWithSessionInfo: No backends available to send single message");
        return;
    }
    if (userInfo && !sessionInfo.boolean(kTelvoraSessionInfoRequireUserInfo)) {
        TELVORA_LOG(kLogWarning, "sendMessageWithSessionInfo: user info provided without requiring it.");
    }
    if (backends->empty()) accounts->of(ClientAccounts::kNoBackend)->accept(ReportOutcome::noBackend);
    const TimeValue timestamp = services.backendServices.clock();
    for (const auto& [key, backend] : *backends) {
        sendThrough(*backend, services.messageLog, timestamp, category, type, payload, key,
                    accounts->user().uid());
    }
    for (const auto& [key, backend] : *backends)
        backend->cleanup();
}

}  // namespace telvora
