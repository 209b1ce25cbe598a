// SPDX-License-Identifier: Apache-2.0
//
// TelvoradAgent: the object that all connections and sessions share. It admits peers by entitlement, keeps
// the registry of live sessions, which keeps the process alive, serves bags from its cache, and groups
// sessions into hierarchies.
//
// Two recursive locks, never held at once: the registry's own, and the hierarchy lock, which guards the bag
// cache and the hierarchies and stays held across a bag fetch, so that sessions that wait for the same bag
// find it fetched. All operations may be called from any thread.
#pragma once

#include <atomic>
#include <compare>
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
#include "config/storebag_fetcher.h"
#include "daemon/client_connection.h"
#include "daemon/keep_alive_transaction.h"
#include "daemon/refusal_log.h"
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
};

class TelvoradAgent final : public TelvoradSessionDelegate {
  public:
    explicit TelvoradAgent(AgentServices services) : services_(std::move(services)) {}

    // Whether the new connection is admitted: its peer must have the entitlement, and its user quota for one
    // more connection and session. An admitted connection gets its session and is served. A refused
    // connection is left to the caller, which closes it.
    bool listener(const std::shared_ptr<ClientConnection>& shouldAcceptNewConnection, const Peer& peer);

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

    // For the sessions; see TelvoradSessionDelegate.
    std::shared_ptr<const Dictionary> storebagForSession(const TelvoradSession& session) override;
    std::optional<std::string> storebagVersionForSession(const TelvoradSession& session) override;
    SessionHierarchies& hierarchies() override { return hierarchies_; }

  private:
    using SessionList = std::vector<std::shared_ptr<TelvoradSession>>;

    // The client types with the same bag name share a record; so do those without a bag name, which the bag
    // without a name serves. Type 0 has a record of its own: no bag is ever requested for it.
    struct StorebagKey {
        explicit StorebagKey(uint32_t clientType)
            : name(bagNameForClientType(clientType)), isFetched(clientType != 0) {}
        friend auto operator<=>(const StorebagKey&, const StorebagKey&) = default;

        std::optional<std::string> name;
        bool isFetched;
    };

    struct StorebagRecord {
        std::shared_ptr<const Dictionary>
            data;  // the environment's section; null until a fetch has succeeded
        std::optional<std::string> version;
        std::optional<std::string> lastModified;
        double fetchTime = 0;  // of the last attempt, seconds since 1970
        int32_t maxAge = 0;    // seconds
        bool fetchSuccessful = false;
        bool builtIn = false;  // the data are the built-in bag
    };

    // A record's part of the status. It has its own lock: the agent's is held across fetches.
    struct StorebagExtract {
        int clientType = 0;  // of the session that caused the last fetch
        std::optional<std::string> version;
        double fetchTime = 0;
        int32_t maxAge = 0;
        bool fetchSuccessful = false;
        bool held = false;     // the record has a bag
        bool builtIn = false;  // the bag is the built-in one
    };

    struct RegisteredSession {
        std::shared_ptr<TelvoradSession> session;
        Peer peer;
        std::weak_ptr<ClientConnection> connection;
        QuotaCharge place;
    };

    // Registry.
    void invalidated(const std::shared_ptr<TelvoradSession>& session);
    // Storebags.
    void fetchAndCacheStorebag(uint32_t clientType) TELVORA_REQUIRES(lock_);

    const AgentServices services_;
    RefusalLog refusals_;

    std::atomic<size_t> sessionsAlive_{0};

    RecursiveMutex sessionListLock_{LockRank::agent};
    std::list<RegisteredSession> sessionList_ TELVORA_GUARDED_BY(sessionListLock_);  // in order of acceptance
    std::unordered_map<const TelvoradSession*, std::list<RegisteredSession>::iterator> sessionPlaces_
        TELVORA_GUARDED_BY(sessionListLock_);

    RecursiveMutex lock_{LockRank::agent};
    std::map<StorebagKey, StorebagRecord> cachedStorebags_ TELVORA_GUARDED_BY(lock_);
    Mutex storebagExtractsLock_;
    std::map<StorebagKey, StorebagExtract> storebagExtracts_ TELVORA_GUARDED_BY(storebagExtractsLock_);
    SessionHierarchies hierarchies_{lock_};
};

}  // namespace telvora
