// SPDX-License-Identifier: Apache-2.0
//
// Admission of connections, the registry of live sessions, and their bags.
#include "daemon/telvorad_agent.h"

#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

uint32_t clientTypeOf(const TelvoradSession& session) {
    return static_cast<uint32_t>(
        session.sessionInfo()->wrappedInteger(kTelvoraSessionInfoClientType).value_or(0));
}

}  // namespace

bool TelvoradAgent::listener(const std::shared_ptr<ClientConnection>& shouldAcceptNewConnection,
                             const Peer& peer) {
    const std::shared_ptr<ClientConnection>& connection = shouldAcceptNewConnection;
    const QuotaUser user = services_.quotas.of(peer.uid);
    const LogScope onBehalfOfUser(user.logAdmission());
    const std::optional<PropertyList> entitlement =
        services_.entitlements.valueForEntitlement(peer, kClientEntitlement);
    if (!entitlement || !entitlement->boolValue()) {
        TELVORA_LOG(
            kLogDebug,
            "listener: new XPC connection %s does not have required telvora entitlement. Closing connection...",
            connection->description().c_str());
        refusals_.notEntitled(peer);
        return false;
    }
    const auto connected = std::make_shared<QuotaCharge>();
    QuotaCharge place;
    if (!user.take(Quota::connections, 1, *connected) || !user.take(Quota::sessions, 1, place)) {
        refusals_.overQuota();
        return false;
    }
    TELVORA_LOG(kLogDebug,
                "listener: Accepting new XPC connection %s as it has proper entitlement, %d(%d) connections.",
                connection->description().c_str(), static_cast<int>(sessionCount()),
                static_cast<int>(hierarchies_.count()));

    ++sessionsAlive_;
    const SessionServices& services = services_.sessionServices;
    const auto client = std::make_shared<const Peer>(peer);
    auto files =
        std::make_shared<ClientFiles>(client, services.uploadDirectories, services.uploadAdmission, user);
    auto session = std::make_shared<TelvoradSession>(services, *this, connection, files, user, peer.uid);
    connection->setClientFiles(std::move(files));
    connection->setExportedObject(session);
    connection->setUser(user);
    {
        const RecursiveMutexLock lock(sessionListLock_);
        if (sessionList_.empty()) services_.keepAlive.begin();
        sessionPlaces_[session.get()] =
            sessionList_.insert(sessionList_.end(), {session, client, connection, std::move(place)});
    }
    connection->setAdmission([this, user, &session = *session](bool resumed, const auto& resume) {
        if (!user.blockingShare()->mayStart(resume)) return false;
        return resumed || !session.everInHierarchy() || storebags_.isIdle(resume);
    });
    connection->setInvalidationHandler([this, session] { invalidated(session); });
    // The handler holds the connection's charge on the user's quota.
    connection->setGoneHandler([this, connected] {
        if (--sessionsAlive_ == 0) services_.noSessionsLeft();
    });
    connection->resume();
    return true;
}

std::optional<QuotaCharge> TelvoradAgent::mayWait(uid_t user) {
    if (refusals_.refusesAtOnce(user)) return std::nullopt;
    auto place = services_.quotas.of(user).take(Quota::connections, 1);
    if (!place) refusals_.overQuota();
    return place;
}

void TelvoradAgent::invalidated(const std::shared_ptr<TelvoradSession>& session) {
    TELVORA_LOG(kLogDebug, "listener: XPC connection to %s was invalidated", session->description().c_str());
    bool lastSession = false;
    {
        const RecursiveMutexLock lock(sessionListLock_);
        const auto place = sessionPlaces_.find(session.get());
        if (place != sessionPlaces_.end()) {
            sessionList_.erase(place->second);
            sessionPlaces_.erase(place);
            lastSession = sessionList_.empty();
        }
    }
    hierarchies_.leave(*session);
    session->dealloc();
    // An idle process may end only now: the session's last reports are on their way.
    if (lastSession) services_.keepAlive.end();
}

void TelvoradAgent::invalidateAllConnections() {
    std::vector<std::shared_ptr<ClientConnection>> connections;
    {
        const RecursiveMutexLock lock(sessionListLock_);
        for (const RegisteredSession& registered : sessionList_) {
            if (auto connection = registered.connection.lock()) connections.push_back(std::move(connection));
        }
    }
    for (const auto& connection : connections)
        connection->invalidate();
}

size_t TelvoradAgent::sessionCount() {
    const RecursiveMutexLock lock(sessionListLock_);
    return sessionList_.size();
}

void TelvoradAgent::storebagForSession(const TelvoradSession& session, StorebagReply reply) {
    const uint32_t clientType = clientTypeOf(session);
    TELVORA_LOG(kLogDebug, "storebagForSession: Retrieving storebag for session %u with client type %d",
                session.sessionID(), static_cast<int>(clientType));
    storebags_.request(clientType, std::move(reply));
}

std::optional<std::string> TelvoradAgent::storebagVersionForSession(const TelvoradSession& session) {
    return storebags_.version(clientTypeOf(session));
}

}  // namespace telvora
