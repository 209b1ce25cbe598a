// SPDX-License-Identifier: Apache-2.0
//
// Synchronisation of a session with its hierarchy: combined ID and reporting states.
#include <utility>

#include "session/telvorad_session.h"
#include "util/log.h"

namespace telvora {

// The backends may be working: the strand sets the ID in them before their next operation. Without ancestors,
// they keep their ID.
void TelvoradSession::updateCombinedSessionID() {
    const std::optional<std::string> parent = hierarchies_.parentSessionIDStringForSession(*this);
    if (!parent) return;
    std::string combined;
    combined.reserve(parent->size() + 1 + sessionIDString_.size());
    combined.append(*parent).append(1, '.').append(sessionIDString_);
    TELVORA_LOG(kLogDebug,
                "updateCombinedSessionID: Updating combined session ID '%s' for session %u backends",
                combined.c_str(), sessionID());
    const MutexLock lock(backendsLock_);
    if (backends_) newCombinedID_ = std::move(combined);
}

// A backend takes over the state of the parent's backend of the same name, and is disabled if there is no
// such backend. A backend that is sampled out keeps its state.
void TelvoradSession::syncReportingStates() {
    const RecursiveMutexLock hierarchy(hierarchies_.lock());
    const std::shared_ptr<TelvoradSession> parent = hierarchies_.parentSessionForChild(*this);
    // A copy, as two sessions' locks are never held at once.
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

}  // namespace telvora
