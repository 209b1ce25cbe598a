// SPDX-License-Identifier: Apache-2.0
//
// Status of a session for administrators.
#include "session/session_status.h"

#include "protocol/status_keys.h"
#include "session/telvorad_session.h"
#include "telvora/keys.h"

namespace telvora {

namespace {

const char* nameOf(BackendState state) {
    switch (state) {
        case BackendState::waitingForUserInfo:
            return "waiting";
        case BackendState::disabled:
            return "disabled";
        case BackendState::reporting:
            return "reporting";
        case BackendState::sampledOut:
            return "sampledOut";
    }
    return "unknown";
}

}  // namespace

Dictionary describe(const ReportTallies& tallies) {
    Dictionary described;
    for (const auto& [name, tally] : tallies) {
        Dictionary account{{status::kAccepted, tally.accepted}};
        Dictionary lost;
        for (size_t i = 0; i < kReportOutcomes; ++i) {
            const uint64_t reports = tally.outcomes[i];
            if (i < kFirstLoss && (ReportOutcome(i) != ReportOutcome::kept || reports > 0)) {
                account.set(nameOf(ReportOutcome(i)), reports);
            } else if (i >= kFirstLoss && reports > 0) {
                lost.set(nameOf(ReportOutcome(i)), reports);
            }
        }
        account.set(status::kLost, std::move(lost));
        Dictionary reasons;
        for (size_t i = 0; i < kDecisions; ++i) {
            if (tally.disabledBecause[i] > 0) reasons.set(nameOf(Decision(i)), tally.disabledBecause[i]);
        }
        if (!reasons.empty()) account.set(status::kDisabledBecause, std::move(reasons));
        described.set(name, std::move(account));
    }
    return described;
}

Dictionary describe(const std::map<int, ReportTallies>& totals) {
    Dictionary described;
    for (const auto& [clientType, tallies] : totals) {
        const bool isKnown = clientType != ReportLedger::kNoClientType;
        described.set(isKnown ? std::to_string(clientType) : status::kNone, describe(tallies));
    }
    return described;
}

Dictionary TelvoradSession::status() const {
    Dictionary status{
        {status::kSessionID, static_cast<long long>(sessionID())},
        {status::kUuid, sessionIDString_},
        {status::kClientType,
         static_cast<long long>(sessionInfo()->wrappedInteger(kTelvoraSessionInfoClientType).value_or(0))},
        {status::kLevel, static_cast<long long>(hierarchyLevel())},
        {status::kAggregates, hasAggregator()}};
    const UserInfo user = userInfo();
    if (const auto name = userInfoText(user.get(), kTelvoraUserInfoClientName))
        status.set(status::kClientName, *name);
    if (const auto name = userInfoText(user.get(), kTelvoraUserInfoServiceName))
        status.set(status::kServiceName, *name);
    if (const auto token = hierarchyToken()) {
        status.set(status::kToken, *token);
        status.set(status::kHierarchyUser, static_cast<long long>(hierarchyUser()));
    }
    Dictionary backends;
    for (const auto& [name, backend] : backendStates()) {
        Dictionary described{{status::kState, nameOf(backend.state)},
                             {status::kReason, nameOf(backend.reason)}};
        if (backend.samplingThreshold) described.set(status::kSamplingThreshold, *backend.samplingThreshold);
        backends.set(name, std::move(described));
    }
    status.set(status::kBackends, std::move(backends));
    status.set(status::kAccounts, describe(accounts_->tallies()));
    return status;
}

}  // namespace telvora
