// SPDX-License-Identifier: Apache-2.0
//
// Copies of reports for the client that aggregates them: the client of the highest aggregating ancestor, or
// else the session's own.
#include "session/telvorad_session.h"
#include "util/log.h"

namespace telvora {

namespace {

ReportOutcome outcomeOf(Delivery delivery) {
    switch (delivery) {
        case Delivery::handedOver:
            return ReportOutcome::delivered;
        case Delivery::tooMuchUnread:
            return ReportOutcome::tooManyPending;
        case Delivery::overQuota:
            return ReportOutcome::overQuota;
        case Delivery::unreachable:
            break;
    }
    return ReportOutcome::noConnection;
}

}  // namespace

void TelvoradSession::aggregateMessage(double timestamp, uint16_t category, uint16_t type,
                                       const std::optional<Dictionary>& payload) {
    const auto deliver = [&](TelvoradSession& aggregator) {
        std::optional<Dictionary> delivered = payload;
        const UserInfo user = userInfo();
        if (delivered && user) delivered->merge(*user);
        aggregator.sendToAggregator(sessionInfo(), timestamp, category, type, std::move(delivered));
    };
    if (hierarchyLevel() >= 1) {
        // The lock keeps the ancestor from leaving before it is called.
        const RecursiveMutexLock lock(hierarchies_.lock());
        if (const auto ancestor = hierarchies_.getAncestorWithAggregatorForSession(*this)) {
            return deliver(*ancestor);
        }
    } else {
        // There are no ancestors: the search reads only this session.
        hierarchies_.getAncestorWithAggregatorForSession(*this);
    }
    if (hasAggregator()) deliver(*this);
}

void TelvoradSession::sendToAggregator(const std::shared_ptr<const Dictionary>& sessionInfo, double timestamp,
                                       uint16_t category, uint16_t type, std::optional<Dictionary> payload) {
    DeliveryReply counted;
    if (sessionInfo) {
        const auto account = accounts_->of(ClientAccounts::kAggregator);
        account->accept();
        InFlightReports copy(account, 1);
        counted = [copy = std::make_shared<InFlightReports>(std::move(copy))](Delivery delivery) {
            copy->settle(outcomeOf(delivery));
        };
    }
    connection_->sendMessageToClient(sessionInfo, timestamp, category, type, std::move(payload),
                                     std::move(counted));
}

void TelvoradSession::shutdownSessionAggregation() {
    TELVORA_LOG(kLogDebug, "shutdownSessionAggregation: Disable aggregation module for session %u",
                sessionID());
    if (hasAggregator_.exchange(false)) sendToAggregator(nullptr, 0, 0, 0, std::nullopt);
}

}  // namespace telvora
