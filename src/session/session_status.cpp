// SPDX-License-Identifier: Apache-2.0
//
// Status of a session for administrators.
#include "session/session_status.h"

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

Dictionary describe(const std::map<std::string, ReportTally>& tallies) {
    Dictionary described;
    for (const auto& [name, tally] : tallies) {
        Dictionary account{{"accepted", tally.accepted}};
        Dictionary lost;
        for (size_t i = 0; i < kReportOutcomes; ++i) {
            const uint64_t reports = tally.outcomes[i];
            if (i < kFirstLoss) {
                account.set(nameOf(ReportOutcome(i)), reports);
            } else if (reports > 0) {
                lost.set(nameOf(ReportOutcome(i)), reports);
            }
        }
        account.set("lost", std::move(lost));
        described.set(name, std::move(account));
    }
    return described;
}

Dictionary TelvoradSession::status() const {
    Dictionary status{
        {"sessionID", static_cast<long long>(sessionID())},
        {"uuid", sessionIDString_},
        {"clientType",
         static_cast<long long>(sessionInfo()->wrappedInteger(kTelvoraSessionInfoClientType).value_or(0))},
        {"level", static_cast<long long>(hierarchyLevel())},
        {"aggregates", hasAggregator()}};
    if (const auto token = hierarchyToken()) {
        status.set("token", *token);
        status.set("hierarchyUser", static_cast<long long>(hierarchyUser()));
    }
    Dictionary backends;
    for (const auto& [name, backend] : backendStates()) {
        Dictionary described{{"state", nameOf(backend.state)}};
        if (backend.samplingThreshold) described.set("samplingThreshold", *backend.samplingThreshold);
        backends.set(name, std::move(described));
    }
    status.set("backends", std::move(backends));
    status.set("accounts", describe(accounts_->tallies()));
    return status;
}

}  // namespace telvora
