// SPDX-License-Identifier: Apache-2.0
//
// The backends' reporting states: their update and their lists.
#include "session/telvorad_session.h"

namespace telvora {

void TelvoradSession::updateReportingStates() {
    const auto current = backends();
    if (!current) return;
    for (const auto& [name, backend] : *current)
        backend->updateState();
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
