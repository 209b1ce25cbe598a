// SPDX-License-Identifier: Apache-2.0
//
// TelvoradAgent: the one object that every connection and every session meets. It lets peers in by
// entitlement, keeps the registry of live sessions and with it the process alive, serves bags from its cache,
// and knows which sessions form a hierarchy.
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
    explicit TelvoradAgent(AgentServices services) : services_(std::move(services)) {}

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
    SessionHierarchies& hierarchies() override { return hierarchies_; }

  private:
    // Which client types share a record: those of one bag name, and those without a name, which are served by
    // the bag of no name; but for type 0, for which no bag is ever asked: its failures are its own.
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
        bool builtIn = false;  // the data are the built-in stand-in
    };

    // What is told of a record; under a lock of its own, for the agent's is held across fetches.
    struct StorebagExtract {
        int clientType = 0;  // of the session that it was last fetched for
        std::optional<std::string> version;
        double fetchTime = 0;
        int32_t maxAge = 0;
        bool fetchSuccessful = false;
        bool held = false;     // there is a bag
        bool builtIn = false;  // it is the built-in one
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
