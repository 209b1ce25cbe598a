// SPDX-License-Identifier: Apache-2.0
//
// What the agent tells administrators of its clients and its bags. It waits for no bag fetch: the sessions
// are asked outside all locks of the agent's, and of the cache there is an extract under a lock of its own.
#include "daemon/telvorad_agent.h"

namespace telvora {

namespace {

Dictionary clientStatus(const Peer& peer) {
    Dictionary client{{"user", static_cast<long long>(peer.uid)},
                      {"group", static_cast<long long>(peer.gid)},
                      {"pid", static_cast<long long>(peer.pid)}};
    if (!peer.unit.empty()) client.set("unit", peer.unit);
    return client;
}

const char* nameOf(StorebagCache::Status::State state) {
    using State = StorebagCache::Status::State;
    switch (state) {
        case State::absent:
            return "absent";
        case State::builtIn:
            return "fallback";
        case State::fresh:
            return "fresh";
        case State::stale:
            return "stale";
    }
    return "";
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
    Array statuses;
    for (const StorebagCache::Status& bag : cachedStorebags_.statuses()) {
        Dictionary status{{"clientType", bag.clientType},
                          {"state", nameOf(bag.state)},
                          {"age", bag.age},
                          {"maxAge", bag.maxAge}};
        if (bag.name) status.set("name", *bag.name);
        if (bag.version) status.set("version", *bag.version);
        statuses.emplace_back(std::move(status));
    }
    return statuses;
}

}  // namespace telvora
