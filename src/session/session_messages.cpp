// SPDX-License-Identifier: Apache-2.0
//
// Sending a report: check of its mandatory parameters, aggregation, then every backend that admits it.
#include "session/telvorad_session.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr SendFlag kNoFlag{0};

bool isHTTPSPost(const std::string& name) {
    return name == kTelvoraBackendHTTPPost2 || name == kTelvoraBackendHTTPPost;
}

}  // namespace

void TelvoradSession::sendMessageWithCategory(uint16_t category, uint16_t type,
                                              std::optional<Dictionary> payload, StringReply reply) {
    TELVORA_LOG(kLogDebug, "sendMessageWithCategory: Sending message for session %u", sessionID());
    reply(sendMessage(category, type, payload));
}

void TelvoradSession::sendMessageWithDictionary(Dictionary message, StringReply reply) {
    TELVORA_LOG(kLogDebug, "sendMessageWithCategory: Sending message for session %u", sessionID());
    reply(sendMessage(message));
}

std::optional<std::string> TelvoradSession::sendMessage(uint16_t category, uint16_t type,
                                                        const std::optional<Dictionary>& payload) {
    if (!hasBackends()) return std::nullopt;
    return submitMessage(category, type, payload, kNoFlag);
}

std::optional<std::string> TelvoradSession::sendMessage(const Dictionary& message) {
    if (!hasBackends()) return std::nullopt;
    const std::optional<int64_t> category = message.wrappedInteger(kTelvoraMessageParametersCategory);
    if (!category) {
        TELVORA_LOG(kLogDebug, "sendMessageWithDictionary: Missing mandatory parameter 'category'");
        countUnsent(ReportOutcome::incomplete);
        return std::nullopt;
    }
    const std::optional<int64_t> type = message.wrappedInteger(kTelvoraMessageParametersType);
    if (!type) {
        TELVORA_LOG(kLogDebug, "sendMessageWithDictionary: Missing mandatory parameter 'type'");
        countUnsent(ReportOutcome::incomplete);
        return std::nullopt;
    }
    std::optional<Dictionary> payload;
    if (const Dictionary* given = message.dictionary(kTelvoraMessageParametersPayload)) payload = *given;
    const auto flag =
        static_cast<SendFlag>(message.wrappedInteger(kTelvoraMessageParametersFlag).value_or(0));
    return submitMessage(static_cast<uint16_t>(*category), static_cast<uint16_t>(*type), payload, flag);
}

std::optional<std::string> TelvoradSession::submitMessage(uint16_t category, uint16_t type,
                                                          const std::optional<Dictionary>& payload,
                                                          SendFlag flag) {
    const TimeValue timestamp = services_.backendServices.clock();
    aggregateMessage(TelvoradUtil::secondsFromTimeValue(timestamp), category, type, payload);

    std::optional<std::string> result;
    const auto current = backends();
    if (current->empty()) countUnsent(ReportOutcome::noBackend);
    for (const auto& [key, backend] : *current) {
        if (const auto excluded = backend->exclusionOf(category, "sendMessageWithDictionary")) {
            backend->reports().accept(*excluded);
            continue;
        }
        std::optional<std::string> answer = backend->sendMessage(payload, timestamp, category, type, flag);
        if (!answer) continue;
        TelvoradUtil::writeToLogFile(services_.messageLog,
                                     {"[", key, " -> sendMessageWithDictionary] ", *answer}, uid_);
        // An HTTPS answer replaces any other; the dashboard's is used only if there is no answer yet.
        if (isHTTPSPost(backend->name()) || (backend->name() == kTelvoraBackendDashboard && !result)) {
            result = std::move(answer);
        }
    }
    return result;
}

void TelvoradSession::internalSendMessage(const Dictionary& payload, uint16_t method, uint16_t respCode) {
    sendMessage(method, respCode, payload);
    TELVORA_LOG(kLogDebug, "internalSendMessage: Sent internal message (method:%d respCode:%d)", method,
                respCode);
}

bool TelvoradSession::hasBackends() {
    if (backends()) return true;
    countUnsent(ReportOutcome::notConfigured);
    TELVORA_LOG(kLogDebug, "sendMessageWithDictionary: No backends available to send message");
    return false;
}

}  // namespace telvora
