// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "plist/property_list.h"
#include "session/session_hierarchies.h"

namespace telvora {

// The operations of the agent that its sessions use. All are synchronous and callable from any thread. The
// agent outlives its sessions.
class TelvoradSessionDelegate {
  public:
    virtual ~TelvoradSessionDelegate() = default;

    // The environment's section of the bag for the session's client type, or null. Takes the hierarchy lock
    // and holds it across a fetch: may block for 15 seconds.
    virtual std::shared_ptr<const Dictionary> storebagForSession(const TelvoradSession& session) = 0;
    // The version of the bag that storebagForSession() found last; `std::nullopt` if there is none. Does not
    // fetch, but waits for the hierarchy lock.
    virtual std::optional<std::string> storebagVersionForSession(const TelvoradSession& session) = 0;

    // The hierarchies of all sessions. Their lock is also that of the bag cache.
    virtual SessionHierarchies& hierarchies() = 0;
};

}  // namespace telvora
