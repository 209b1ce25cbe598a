// SPDX-License-Identifier: Apache-2.0
//
// PendingRequests: limits the number and the bytes of the requests that wait or are under way. Alone, a user
// may fill two thirds of each limit, and a server half. Belongs to its owner, who locks it.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

#include "http/http_exchange.h"

namespace telvora {

class PendingRequests {
  public:
    PendingRequests(size_t maxRequests, size_t maxBytes) : limits_{maxRequests, maxBytes} {}

    // Counts the exchange until remove(). False if there is no room for it; then it does not count.
    bool add(const HttpExchange& exchange);
    void remove(const HttpExchange& exchange);

  private:
    struct Load {
        size_t requests = 0;
        size_t bytes = 0;
    };

    bool hasRoom(const Load& held, size_t cost, size_t weight) const;

    const Load limits_;
    Load total_;
    std::map<std::optional<uid_t>, Load> byUser_;
    std::unordered_map<std::string, Load> byServer_;
};

}  // namespace telvora
