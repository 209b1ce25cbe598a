// SPDX-License-Identifier: Apache-2.0
//
// What a session tells administrators of itself.
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

Dictionary TelvoradSession::status() const {
    Dictionary status{{"sessionID", static_cast<long long>(sessionID())},
                      {"uuid", sessionIDString_},
                      {"clientType", static_cast<long long>(
                                         sessionInfo()->integer(kTelvoraSessionInfoClientType).value_or(0))},
                      {"level", static_cast<long long>(hierarchyLevel())},
                      {"aggregates", hasAggregator()}};
    if (const auto token = hierarchyToken()) status.set("token", *token);
    Dictionary backends;
    for (const auto& [name, backend] : backendStates()) {
        Dictionary described{{"state", nameOf(backend.state)}};
        if (backend.samplingThreshold) described.set("samplingThreshold", *backend.samplingThreshold);
        backends.set(name, std::move(described));
    }
    status.set("backends", std::move(backends));
    return status;
}

}  // namespace telvora
