// SPDX-License-Identifier: Apache-2.0
//
// TelvoradAgent: the object that all connections and sessions share. It admits peers by entitlement, keeps
// the registry of live sessions, which keeps the process alive, serves bags from its cache, and groups
// sessions into hierarchies.
//
// Two recursive locks, never held at once: the registry's own, and the hierarchy lock. During a bag fetch,
// the calls of sessions in hierarchies wait in the queue of the bags' service, and no thread waits. All
// operations may be called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "access/entitlements.h"
#include "access/peer.h"
#include "access/user_quotas.h"
#include "config/storebag_service.h"
#include "connections/client_connection.h"
#include "connections/refusal_log.h"
#include "daemon/keep_alive_transaction.h"
#include "session/telvorad_session.h"
#include "session/telvorad_session_delegate.h"
#include "util/mutex.h"

namespace telvora {

// The objects that the agent uses; all outlive it.
struct AgentServices {
    const EntitlementStore& entitlements;
    const StorebagFetcher& storebagFetcher;
    const SessionServices& sessionServices;
    UserQuotas& quotas;
    KeepAliveTransaction& keepAlive;
    Clock clock;
    std::function<void()> noSessionsLeft;  // called on any thread when the last session has ended
    const KeptBags* keptBags = nullptr;    // null: bags are not kept for later processes
};

class TelvoradAgent final : public TelvoradSessionDelegate {
  public:
    explicit TelvoradAgent(AgentServices services)
        : services_(std::move(services)),
          storebags_(services_.storebagFetcher, services_.clock, services_.keptBags) {}

    // Whether the new connection is admitted: its peer must have the entitlement, and its user quota for one
    // more connection and session. An admitted connection gets its session and is served. A refused
    // connection is left to the caller, which closes it.
    bool listener(const std::shared_ptr<ClientConnection>& shouldAcceptNewConnection, const Peer& peer);

    // The charge for a new connection of the user while it waits for listener(); std::nullopt: it is refused.
    std::optional<QuotaCharge> mayWait(uid_t user);
    // Ends every connection; their sessions end on their own strands.
    void invalidateAllConnections();
    // Sessions whose connection is valid.
    size_t sessionCount();
    // Sessions that have not ended yet, including those that send their last reports or whose clients read
    // their last answers.
    size_t sessionsAlive() const { return sessionsAlive_.load(); }

    // The status of the live sessions, in order of acceptance, and of the requested bags (status_keys.h).
    // Neither waits for a fetch.
    Array sessionStatus();
    Array storebagStatus();
    // Connections that were refused, by cause.
    Dictionary refusalStatus() const;
    // The environment's section of the client type's bag, as a session gets it; see StorebagService.
    void storebag(uint32_t clientType, StorebagReply reply) {
        storebags_.request(clientType, std::move(reply));
    }
    // Fetches the requested bags anew, and calls `done` once when all fetches are through; see
    // StorebagService.
    void refreshStorebags(std::function<void()> done) { storebags_.refresh(std::move(done)); }

    // For the sessions; see TelvoradSessionDelegate.
    void storebagForSession(const TelvoradSession& session, StorebagReply reply) override;
    std::optional<std::string> storebagVersionForSession(const TelvoradSession& session) override;
    SessionHierarchies& hierarchies() override { return hierarchies_; }

  private:
    using SessionList = std::vector<std::shared_ptr<TelvoradSession>>;

    struct RegisteredSession {
        std::shared_ptr<TelvoradSession> session;
        std::shared_ptr<const Peer> peer;
        std::weak_ptr<ClientConnection> connection;
        QuotaCharge place;
    };

    // Registry.
    void invalidated(const std::shared_ptr<TelvoradSession>& session);

    const AgentServices services_;
    RefusalLog refusals_;

    std::atomic<size_t> sessionsAlive_{0};

    RecursiveMutex sessionListLock_{LockRank::agent};
    std::list<RegisteredSession> sessionList_ TELVORA_GUARDED_BY(sessionListLock_);  // in order of acceptance
    std::unordered_map<const TelvoradSession*, std::list<RegisteredSession>::iterator> sessionPlaces_
        TELVORA_GUARDED_BY(sessionListLock_);

    StorebagService storebags_;
    SessionHierarchies hierarchies_;
};

}  // namespace telvora
