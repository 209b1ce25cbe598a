// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "plist/property_list.h"
#include "session/session_hierarchies.h"

namespace telvora {

// The environment's section of a bag, or null.
using StorebagReply = std::function<void(std::shared_ptr<const Dictionary> storebag)>;

// The operations of the agent that its sessions use. All are callable from any thread. The agent outlives its
// sessions.
class TelvoradSessionDelegate {
  public:
    virtual ~TelvoradSessionDelegate() = default;

    // Calls `reply` once with the bag for the session's client type: before it returns, or on any thread
    // after a fetch, which takes up to 15 seconds, and after the fetches that were requested before.
    virtual void storebagForSession(const TelvoradSession& session, StorebagReply reply) = 0;
    // The version of the bag that storebagForSession() found last; `std::nullopt` if there is none.
    virtual std::optional<std::string> storebagVersionForSession(const TelvoradSession& session) = 0;

    // The hierarchies of all sessions.
    virtual SessionHierarchies& hierarchies() = 0;
};

}  // namespace telvora
