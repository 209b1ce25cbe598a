// SPDX-License-Identifier: Apache-2.0
#include "http/exchange_queue.h"

#include <algorithm>

#include "http/fair_share.h"

namespace telvora {

namespace {

// The first in turn, which becomes the last.
template <typename T>
T& nextInTurn(std::deque<T*>& turns) {
    T* const next = turns.front();
    turns.pop_front();
    turns.push_back(next);
    return *next;
}

}  // namespace

void ExchangeQueue::add(std::unique_ptr<HttpExchange> exchange) {
    ExchangeUser& user = users_[exchange->request.user];
    ExchangeServer& server = servers_[exchange->server];
    server.slots = std::max(server.slots, slotsPerServer_);
    const auto [at, isNew] = user.lines.try_emplace(exchange->server, ExchangeLine{user, server});
    server.lines += isNew;
    ExchangeLine& line = at->second;
    if (line.waiting.empty()) {
        if (user.turns.empty()) turns_.push_back(&user);
        user.turns.push_back(&line);
    }
    exchange->line = &line;
    line.waiting.push_back(std::move(exchange));
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
    ExchangeUser& user = line.user;
    if (--line.server.lines == 0) servers_.erase(exchange.server);
    user.lines.erase(exchange.server);
    if (user.lines.empty()) users_.erase(exchange.request.user);
}

}  // namespace telvora
