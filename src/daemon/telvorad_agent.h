// SPDX-License-Identifier: Apache-2.0
//
// TelvoradAgent: the one object that every connection and every session meets. It lets peers in by
// entitlement, keeps the registry of live sessions and with it the process alive, serves bags from its cache,
// and knows which sessions form a hierarchy.
//
// Two recursive locks, never held at once: the registry's own, and the agent's (`hierarchyLock`), which
// guards the bag cache and the hierarchy and stays held across a bag fetch, so that sessions that wait for
// the same bag find it fetched. All operations may be called from any thread.
//
// A hierarchy is known by its token and by its user (TelvoradSession::hierarchyUser): a token is a name that
// others can guess, and sessions of a hierarchy see and govern each other's reports.
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
#include "config/storebag_cache.h"
#include "daemon/client_connection.h"
#include "daemon/keep_alive_transaction.h"
#include "daemon/refusal_log.h"
#include "session/telvorad_session.h"
#include "session/telvorad_session_delegate.h"
#include "util/mutex.h"

namespace telvora {

// What the agent uses of the outside; all outlive it.
struct AgentServices {
    const EntitlementStore& entitlements;
    const StorebagFetcher& storebagFetcher;
    const SessionServices& sessionServices;
    UserQuotas& quotas;
    KeepAliveTransaction& keepAlive;
    Clock clock;
    std::function<void()> noSessionsLeft;  // called, on any thread, when the last session has come to its end
};

class TelvoradAgent final : public TelvoradSessionDelegate {
  public:
    explicit TelvoradAgent(AgentServices services)
        : services_(std::move(services)), cachedStorebags_(services_.storebagFetcher, services_.clock) {}

    // Whether the new connection is let in: its peer must have the entitlement, and its user room for one
    // more connection and session. Then it has its session and serves it. A refused one is left as it is, for
    // the listener to close.
    bool listener(const std::shared_ptr<ClientConnection>& shouldAcceptNewConnection, const Peer& peer);

    // Ends every connection; their sessions end on their own strands.
    void invalidateAllConnections();
    // Sessions whose connection is valid.
    size_t sessionCount();
    // Sessions that have not come to their end yet, those included that are sending their last reports or
    // whose clients are reading their last answers.
    size_t sessionsAlive() const { return sessionsAlive_.load(); }

    // For administrators: the live sessions in order of acceptance, and the bags that were asked for
    // (com.zandor.telvorad.Status.xml). Neither waits for a fetch.
    Array sessionStatus();
    Array storebagStatus();

    // For the sessions; see TelvoradSessionDelegate.
    std::shared_ptr<const Dictionary> storebagForSession(const TelvoradSession& session) override;
    std::optional<std::string> storebagVersionForSession(const TelvoradSession& session) override;
    void updateCorrelatedSessions(const std::shared_ptr<TelvoradSession>& session) override;
    std::optional<std::string> parentSessionIDStringForSession(const TelvoradSession& session) override;
    std::shared_ptr<TelvoradSession> parentSessionForChild(const TelvoradSession& child) override;
    std::shared_ptr<TelvoradSession> getAncestorWithAggregatorForSession(
        const TelvoradSession& session) override;
    void updateDownstreamSessions(TelvoradSession& session) override;
    RecursiveMutex& hierarchyLock() override { return lock_; }

  private:
    using SessionList = std::vector<std::shared_ptr<TelvoradSession>>;

    struct RegisteredSession {
        std::shared_ptr<TelvoradSession> session;
        Peer peer;
        std::weak_ptr<ClientConnection> connection;
        QuotaCharge place;
    };

    // Registry.
    void invalidated(const std::shared_ptr<TelvoradSession>& session);
    // Storebags.
    StorebagCache& cachedStorebags() TELVORA_REQUIRES(lock_) { return cachedStorebags_; }
    // Hierarchy.
    using Hierarchies = std::map<std::pair<std::string, uid_t>, SessionList>;  // by token and user
    const SessionList* sessionsOfToken(const std::string& token, uid_t user) const TELVORA_REQUIRES(lock_);
    bool othersHaveToken(const std::string& token, uid_t user) const TELVORA_REQUIRES(lock_);
    void leaveCorrelatedSessions(const TelvoradSession& session) TELVORA_REQUIRES(lock_);
    void dropEmptyLists() TELVORA_REQUIRES(lock_);
    static std::shared_ptr<TelvoradSession> getFirstSessionWithHierarchy(int64_t level,
                                                                         const SessionList& sessions);

    const AgentServices services_;
    RefusalLog refusals_;

    std::atomic<size_t> sessionsAlive_{0};

    RecursiveMutex sessionListLock_{LockRank::agent};
    std::list<RegisteredSession> sessionList_ TELVORA_GUARDED_BY(sessionListLock_);  // in order of acceptance
    std::unordered_map<const TelvoradSession*, std::list<RegisteredSession>::iterator> sessionPlaces_
        TELVORA_GUARDED_BY(sessionListLock_);

    RecursiveMutex lock_{LockRank::agent};
    StorebagCache cachedStorebags_;  // reached by cachedStorebags(), except for its statuses
    Hierarchies correlatedSessions_ TELVORA_GUARDED_BY(lock_);
    std::unordered_map<const TelvoradSession*, Hierarchies::iterator> hierarchyPlaces_
        TELVORA_GUARDED_BY(lock_);  // who is in which list
    size_t newTokenBytes_ TELVORA_GUARDED_BY(lock_) =
        0;                                            // of tokens entered since empty lists were last dropped
    std::atomic<size_t> correlatedSessionsCount_{0};  // for the log, which must not wait for a fetch
};

}  // namespace telvora
