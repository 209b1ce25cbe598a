// SPDX-License-Identifier: Apache-2.0
//
// The backends' reporting states: taken anew, copied from the parent session, told to the client.
#include "session/telvorad_session.h"
#include "util/log.h"

namespace telvora {

void TelvoradSession::updateReportingStates() {
    const auto current = backends();
    if (!current) return;
    for (const auto& [name, backend] : *current)
        backend->updateState();
}

// A child reports through a backend only as its parent does. A backend that sampled itself out stays out.
void TelvoradSession::syncReportingStates() {
    const DelegateLock hierarchy(sessionDelegate_.hierarchyLock());
    const std::shared_ptr<TelvoradSession> parent = sessionDelegate_.parentSessionForChild(*this);
    // By value: two sessions' locks are never held at once.
    const auto parentStates = parent ? parent->backendStates() : std::map<std::string, ReportingState>{};

    const MutexLock lock(backendsLock_);
    if (!backends_) return;
    for (const auto& [name, backend] : *backends_) {
        if (!parent) {
            if (hierarchyLevel() == 0) continue;
            TELVORA_LOG(
                kLogInfo,
                "syncReportingStates: child session %u (backend %s) with hierarchy %lld is missing its parent",
                sessionID(), name.c_str(), static_cast<long long>(hierarchyLevel()));
            continue;
        }
        const auto followed = parentStates.find(name);
        if (followed == parentStates.end()) {
            backend->followState(BackendState::disabled);
            continue;
        }
        const ReportingState& parents = followed->second;
        if (!backend->followState(parents.state)) continue;
        backend->setSamplingThreshold(parents.samplingThreshold);
        TELVORA_LOG(
            kLogDebug,
            "HTTPSPostBackend(syncReportingStates): %s: state and sampling rate updated to %d, %.02f%%",
            name.c_str(), static_cast<int>(parents.state), parents.samplingThreshold.value_or(0));
    }
}

std::map<std::string, ReportingState> TelvoradSession::backendStates() const {
    std::map<std::string, ReportingState> states;
    const MutexLock lock(backendsLock_);
    if (!backends_) return states;
    for (const auto& [name, backend] : *backends_) {
        states.emplace(name, backend->reportingState());
    }
    return states;
}

std::optional<std::vector<std::string>> TelvoradSession::fetchReportingStates() const {
    const MutexLock lock(backendsLock_);
    if (!backends_) return std::nullopt;
    std::vector<std::string> names;
    for (const auto& [name, backend] : *backends_) {
        const BackendState state = backend->state();
        if (state == BackendState::reporting || state == BackendState::sampledOut) names.push_back(name);
    }
    return names;
}

}  // namespace telvora
