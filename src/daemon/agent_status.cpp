// SPDX-License-Identifier: Apache-2.0
//
// Composes the parts of the status that concern the clients and the bags (protocol/status_keys.h). It does
// not wait for a bag fetch: it queries the sessions outside all locks of the agent, and the cache gives its
// statuses under a lock of its own.
#include "daemon/telvorad_agent.h"
#include "protocol/status_keys.h"

namespace telvora {

namespace {

double secondsSince(std::chrono::steady_clock::time_point time) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - time).count();
}

Dictionary clientStatus(const Peer& peer) {
    Dictionary client{{status::kUser, static_cast<long long>(peer.uid)},
                      {status::kGroup, static_cast<long long>(peer.gid)},
                      {status::kPid, static_cast<long long>(peer.pid)}};
    if (!peer.unit.empty()) client.set(status::kUnit, peer.unit);
    return client;
}

void addFetch(Dictionary& described, const StorebagFetchReport& fetch) {
    if (!fetch.url.empty()) described.set(status::kUrl, fetch.url);
    if (fetch.httpStatus != 0) described.set(status::kHttpStatus, fetch.httpStatus);
    if (fetch.fault.step == BagStep::none) return;
    described.set(status::kFailedStep, nameOf(fetch.fault.step));
    described.set(status::kReason, fetch.fault.reason);
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
    std::vector<std::pair<std::shared_ptr<TelvoradSession>, std::shared_ptr<const Peer>>> sessions;
    {
        const RecursiveMutexLock lock(sessionListLock_);
        sessions.reserve(sessionList_.size());
        for (const RegisteredSession& registered : sessionList_)
            sessions.emplace_back(registered.session, registered.peer);
    }
    Array statuses;
    for (const auto& [session, peer] : sessions) {
        Dictionary described = session->status();
        described.set(status::kClient, clientStatus(*peer));
        statuses.emplace_back(std::move(described));
    }
    return statuses;
}

Array TelvoradAgent::storebagStatus() {
    Array statuses;
    for (const StorebagCache::Status& bag : storebags_.statuses()) {
        Dictionary described{{status::kClientType, bag.clientType},
                             {status::kState, nameOf(bag.state)},
                             {status::kAge, bag.age},
                             {status::kMaxAge, bag.maxAge},
                             {status::kFetched, bag.fetched},
                             {status::kFetchTime, Date{bag.fetchTime}},
                             {status::kNextFetch, bag.untilNextFetch}};
        addFetch(described, bag.fetch);
        if (bag.name) described.set(status::kName, *bag.name);
        if (bag.version) described.set(status::kVersion, *bag.version);
        statuses.emplace_back(std::move(described));
    }
    return statuses;
}

Dictionary TelvoradAgent::refusalStatus() const {
    const RefusalLog::Counts counts = refusals_.counts();
    Dictionary described{{status::kNotEntitled, counts.notEntitled},
                         {status::kTooFrequent, counts.tooFrequent},
                         {status::kOverQuota, counts.overQuota}};
    if (counts.notEntitled > 0) {
        Dictionary last = clientStatus(counts.last);
        last.set(status::kAge, secondsSince(counts.lastTime));
        described.set(status::kLast, std::move(last));
    }
    return described;
}

}  // namespace telvora
