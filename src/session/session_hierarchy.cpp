// SPDX-License-Identifier: Apache-2.0
//
// The session's part in its hierarchy: the combined ID that its backends report under.
#include "session/telvorad_session.h"
#include "util/log.h"

namespace telvora {

// The backends may be at work: they take the ID before their next operation.
// A session without ancestors leaves its backends the ID that they have.
void TelvoradSession::updateCombinedSessionID() {
    const std::optional<std::string> parent = sessionDelegate_.parentSessionIDStringForSession(*this);
    if (!parent) return;
    const std::string combined = *parent + "." + sessionIDString_;
    TELVORA_LOG(kLogDebug,
                "updateCombinedSessionID: Updating combined session ID '%s' for session %u backends",
                combined.c_str(), sessionID());
    const MutexLock lock(backendsLock_);
    if (backends_) newCombinedID_ = combined;
}

}  // namespace telvora
