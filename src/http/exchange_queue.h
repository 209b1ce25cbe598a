// SPDX-License-Identifier: Apache-2.0
//
// ExchangeQueue: the exchanges that wait for a connection, and the count of those that have one.
//
// Each user has a line for each server. Users take turns, and so do the lines of a user; a line keeps the
// order of arrival. A user may hold as many slots as are left free (fair_share.h), in total and of each
// server. Belongs to one thread.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "http/http_exchange.h"

namespace telvora {

struct ExchangeServer {
    size_t slots = 0;
    size_t used = 0;
    size_t lines = 0;
};

struct ExchangeUser;

// The exchanges of one user with one server; exists while there are any.
struct ExchangeLine {
    ExchangeUser& user;
    ExchangeServer& server;
    size_t used = 0;  // slots
    std::deque<std::unique_ptr<HttpExchange>> waiting = {};
};

struct ExchangeUser {
    size_t used = 0;
    std::map<std::string, ExchangeLine> lines = {};
    std::deque<ExchangeLine*> turns = {};  // lines with a waiting exchange
};

class ExchangeQueue {
  public:
    // At most so many exchanges hold a slot, in total and with one server.
    ExchangeQueue(size_t slots, size_t slotsPerServer) : slots_(slots), slotsPerServer_(slotsPerServer) {}

    // Puts the exchange at the end of its line. Throws std::bad_alloc, and leaves it, if there is no memory
    // for it. The other operations need none.
    void add(std::unique_ptr<HttpExchange>& exchange);
    // Takes the next exchange that may start out of its line; it holds a slot until release(). Null if no
    // exchange may start.
    std::unique_ptr<HttpExchange> takeNext();
    void release(const HttpExchange& exchange);
    // Takes a waiting exchange out of its line.
    std::unique_ptr<HttpExchange> remove(const HttpExchange& exchange);
    // Null if no exchange waits.
    const HttpExchange* anyWaiting() const;
    // Gives the server of an exchange that holds a slot at least so many slots, until it has no exchange.
    void extendServer(const HttpExchange& exchange, size_t slots);
    // Whether no exchange waits or holds a slot.
    bool empty() const { return users_.empty(); }

  private:
    void putInLine(std::unique_ptr<HttpExchange>& exchange);
    std::unique_ptr<HttpExchange> takeFirst(ExchangeLine& line);
    void leaveTurnIfDone(ExchangeLine& line);
    void dropIfUnused(const HttpExchange& exchange);
    void dropEmptyOf(const HttpExchange& exchange);

    const size_t slots_;
    const size_t slotsPerServer_;
    size_t used_ = 0;
    std::unordered_map<std::string, ExchangeServer> servers_;
    std::map<std::optional<uid_t>, ExchangeUser> users_;
    std::deque<ExchangeUser*> turns_;  // users with a waiting exchange
};

}  // namespace telvora
