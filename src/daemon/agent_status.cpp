// SPDX-License-Identifier: Apache-2.0
//
// Composes the parts of the status that concern the clients and the bags (protocol/status_keys.h). It does
// not wait for a bag fetch: it queries the sessions outside all locks of the agent, and reads an extract of
// the cache that has its own lock.
#include <cmath>

#include "daemon/telvorad_agent.h"
#include "protocol/status_keys.h"
#include "util/time_value.h"

namespace telvora {

namespace {

Dictionary clientStatus(const Peer& peer) {
    Dictionary client{{status::kUser, static_cast<long long>(peer.uid)},
                      {status::kGroup, static_cast<long long>(peer.gid)},
                      {status::kPid, static_cast<long long>(peer.pid)}};
    if (!peer.unit.empty()) client.set(status::kUnit, peer.unit);
    return client;
}

}  // namespace

Array TelvoradAgent::sessionStatus() {
    std::vector<std::pair<std::shared_ptr<TelvoradSession>, Peer>> sessions;
    {
        const RecursiveMutexLock lock(sessionListLock_);
        sessions.reserve(sessionList_.size());
        for (const RegisteredSession& registered : sessionList_)
            sessions.emplace_back(registered.session, registered.peer);
    }
    Array statuses;
    for (const auto& [session, peer] : sessions) {
        Dictionary described = session->status();
        described.set(status::kClient, clientStatus(peer));
        statuses.emplace_back(std::move(described));
    }
    return statuses;
}

Array TelvoradAgent::storebagStatus() {
    const double now = TelvoradUtil::secondsFromTimeValue(services_.clock());
    Array statuses;
    const MutexLock lock(storebagExtractsLock_);
    for (const auto& [key, extract] : storebagExtracts_) {
        const double age = std::fabs(now - extract.fetchTime);
        const char* state = extract.builtIn                                   ? "fallback"
                            : !extract.held                                   ? "absent"
                            : extract.fetchSuccessful && age < extract.maxAge ? "fresh"
                                                                              : "stale";
        Dictionary bag{{status::kClientType, extract.clientType},
                       {status::kState, state},
                       {status::kAge, age},
                       {status::kMaxAge, extract.maxAge}};
        if (key.name) bag.set(status::kName, *key.name);
        if (extract.version) bag.set(status::kVersion, *extract.version);
        statuses.emplace_back(std::move(bag));
    }
    return statuses;
}

}  // namespace telvora
