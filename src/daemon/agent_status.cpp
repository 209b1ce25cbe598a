// SPDX-License-Identifier: Apache-2.0
//
// What the agent tells administrators of its clients and its bags. It waits for no bag fetch: the sessions
// are asked outside all locks of the agent's, and of the cache there is an extract under a lock of its own.
#include <cmath>

#include "daemon/telvorad_agent.h"
#include "util/time_value.h"

namespace telvora {

namespace {

Dictionary clientStatus(const Peer& peer) {
    Dictionary client{{"user", static_cast<long long>(peer.uid)},
                      {"group", static_cast<long long>(peer.gid)},
                      {"pid", static_cast<long long>(peer.pid)}};
    if (!peer.unit.empty()) client.set("unit", peer.unit);
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
        Dictionary status = session->status();
        status.set("client", clientStatus(peer));
        statuses.emplace_back(std::move(status));
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
        Dictionary status{
            {"clientType", extract.clientType}, {"state", state}, {"age", age}, {"maxAge", extract.maxAge}};
        if (key.name) status.set("name", *key.name);
        if (extract.version) status.set("version", *extract.version);
        statuses.emplace_back(std::move(status));
    }
    return statuses;
}

}  // namespace telvora
