// SPDX-License-Identifier: Apache-2.0
#include "http/exchange_queue.h"

#include <algorithm>
#include <new>

#include "http/fair_share.h"

namespace telvora {

namespace {

// The first in turn, which becomes the last.
template <typename T>
T& nextInTurn(std::deque<T*>& turns) {
    std::rotate(turns.begin(), turns.begin() + 1, turns.end());
    return *turns.back();
}

}  // namespace

void ExchangeQueue::add(std::unique_ptr<HttpExchange>& exchange) try {
    putInLine(exchange);
} catch (const std::bad_alloc&) {
    dropEmptyOf(*exchange);
    throw;
}

void ExchangeQueue::putInLine(std::unique_ptr<HttpExchange>& exchange) {
    ExchangeUser& user = users_[exchange->request.user];
    ExchangeServer& server = servers_[exchange->server];
    server.slots = std::max(server.slots, slotsPerServer_);
    const auto [at, isNew] = user.lines.try_emplace(exchange->server, ExchangeLine{user, server});
    server.lines += isNew;
    ExchangeLine& line = at->second;
    exchange->line = &line;
    try {
        if (line.waiting.empty()) {
            user.turns.push_back(&line);
            if (user.turns.size() == 1) turns_.push_back(&user);
        }
        line.waiting.push_back(std::move(exchange));
    } catch (const std::bad_alloc&) {
        leaveTurnIfDone(line);
        if (line.used == 0 && line.waiting.empty()) {
            --server.lines;
            user.lines.erase(at);
        }
        throw;
    }
}

std::unique_ptr<HttpExchange> ExchangeQueue::takeNext() {
    for (size_t users = turns_.size(); users > 0 && used_ < slots_; --users) {
        ExchangeUser& user = nextInTurn(turns_);
        if (!isWithinShare(user.used, 1, slots_ - used_)) continue;
        for (size_t lines = user.turns.size(); lines > 0; --lines) {
            ExchangeLine& line = nextInTurn(user.turns);
            if (isWithinShare(line.used, 1, line.server.slots - line.server.used)) return takeFirst(line);
        }
    }
    return nullptr;
}

std::unique_ptr<HttpExchange> ExchangeQueue::takeFirst(ExchangeLine& line) {
    for (size_t* used : {&line.used, &line.server.used, &line.user.used, &used_})
        ++*used;
    std::unique_ptr<HttpExchange> exchange = std::move(line.waiting.front());
    line.waiting.pop_front();
    leaveTurnIfDone(line);
    return exchange;
}

std::unique_ptr<HttpExchange> ExchangeQueue::remove(const HttpExchange& exchange) {
    ExchangeLine& line = *exchange.line;
    const auto place = std::find_if(line.waiting.begin(), line.waiting.end(),
                                    [&](const auto& waiting) { return waiting.get() == &exchange; });
    std::unique_ptr<HttpExchange> removed = std::move(*place);
    line.waiting.erase(place);
    leaveTurnIfDone(line);
    dropIfUnused(exchange);
    return removed;
}

const HttpExchange* ExchangeQueue::anyWaiting() const {
    return turns_.empty() ? nullptr : turns_.front()->turns.front()->waiting.front().get();
}

void ExchangeQueue::release(const HttpExchange& exchange) {
    ExchangeLine& line = *exchange.line;
    for (size_t* used : {&line.used, &line.server.used, &line.user.used, &used_})
        --*used;
    dropIfUnused(exchange);
}

void ExchangeQueue::extendServer(const HttpExchange& exchange, size_t slots) {
    ExchangeServer& server = exchange.line->server;
    server.slots = std::max(server.slots, slots);
}

void ExchangeQueue::leaveTurnIfDone(ExchangeLine& line) {
    if (!line.waiting.empty()) return;
    std::erase(line.user.turns, &line);
    if (line.user.turns.empty()) std::erase(turns_, &line.user);
}

void ExchangeQueue::dropIfUnused(const HttpExchange& exchange) {
    const ExchangeLine& line = *exchange.line;
    if (line.used > 0 || !line.waiting.empty()) return;
    --line.server.lines;
    line.user.lines.erase(exchange.server);
    dropEmptyOf(exchange);
}

void ExchangeQueue::dropEmptyOf(const HttpExchange& exchange) {
    const auto server = servers_.find(exchange.server);
    if (server != servers_.end() && server->second.lines == 0) servers_.erase(server);
    const auto user = users_.find(exchange.request.user);
    if (user != users_.end() && user->second.lines.empty()) users_.erase(user);
}

}  // namespace telvora
