// SPDX-License-Identifier: Apache-2.0
#include "http/pending_requests.h"

#include "http/fair_share.h"

namespace telvora {

namespace {

// A user's share is larger than a server's, so that a server that hangs leaves room for the user's others.
constexpr size_t kUserWeight = 2, kServerWeight = 1;

template <typename Map, typename Key>
auto loadOf(const Map& loads, const Key& key) {
    const auto at = loads.find(key);
    return at != loads.end() ? at->second : typename Map::mapped_type{};
}

}  // namespace

bool PendingRequests::hasRoom(const Load& held, size_t cost, size_t weight) const {
    return isWithinShare(held.requests, 1, limits_.requests - total_.requests, weight) &&
           isWithinShare(held.bytes, cost, limits_.bytes - total_.bytes, weight);
}

bool PendingRequests::add(const HttpExchange& exchange) {
    const std::optional<uid_t>& user = exchange.request.user;
    if (!hasRoom(loadOf(byUser_, user), exchange.cost, kUserWeight) ||
        !hasRoom(loadOf(byServer_, exchange.server), exchange.cost, kServerWeight)) {
        return false;
    }
    for (Load* load : {&total_, &byUser_[user], &byServer_[exchange.server]}) {
        ++load->requests;
        load->bytes += exchange.cost;
    }
    return true;
}

void PendingRequests::remove(const HttpExchange& exchange) {
    const auto user = byUser_.find(exchange.request.user);
    const auto server = byServer_.find(exchange.server);
    for (Load* load : {&total_, &user->second, &server->second}) {
        --load->requests;
        load->bytes -= exchange.cost;
    }
    if (user->second.requests == 0) byUser_.erase(user);
    if (server->second.requests == 0) byServer_.erase(server);
}

}  // namespace telvora
