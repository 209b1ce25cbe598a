// SPDX-License-Identifier: Apache-2.0
//
// Compares the daemon's ledger, the clients' books and the server's book of one life of a daemon.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "soak_books.h"
#include "soak_client.h"

namespace telvora::bench {

// The account of the friendly clients' backend.
struct Ledger {
    uint64_t accepted = 0, inFlight = 0, held = 0, delivered = 0;
    std::map<std::string, uint64_t> lost;  // by cause
    uint64_t lostBy(const std::string& cause) const;
    uint64_t lostInAll() const;
};

struct DaemonState {
    Ledger ledger;
    size_t sessions = 0;
    int64_t httpPending = 0;
};
// The status of the daemon with this socket; std::nullopt if there is no answer.
std::optional<DaemonState> stateOf(const std::string& socketPath);

// What one life of a daemon has left.
struct Life {
    std::vector<ClientBook> clients;
    Page page;
    std::optional<Ledger> ledger;         // at its end; of a killed daemon: shortly before
    std::optional<uint64_t> lostInOrder;  // by the last line of a daemon that ended under load
};

// The disagreements; empty if there are none.
std::vector<std::string> auditQuietEnd(const Life& life, const Books& books);
std::vector<std::string> auditBusyEnd(const Life& life, const Books& books);
std::vector<std::string> auditKill(const Life& life, const Books& books);

}  // namespace telvora::bench
