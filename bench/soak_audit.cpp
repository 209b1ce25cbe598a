// SPDX-License-Identifier: Apache-2.0
#include "soak_audit.h"

#include <fmt/format.h>

#include "client/status_query.h"
#include "protocol/status_keys.h"
#include "telvora/keys.h"

namespace telvora::bench {
namespace {

constexpr uint64_t kOwnReports = 3;  // of a session: start, end, finish

uint64_t unsignedAt(const Dictionary& dictionary, const char* key) {
    return static_cast<uint64_t>(dictionary.integer(key).value_or(0));
}

struct Sums {
    uint64_t sessions = 0, sent = 0, acknowledged = 0;
};

Sums sumsOf(const std::vector<ClientBook>& clients) {
    Sums sums;
    for (const ClientBook& client : clients) {
        sums.sessions += client.sessions;
        sums.sent += client.sent;
        sums.acknowledged += client.acknowledged;
    }
    return sums;
}

class Findings {
  public:
    // Two numbers, and the relation that they must have.
    void expect(bool holds, const char* rule, uint64_t left, uint64_t right) {
        if (!holds) found.push_back(fmt::format("{}: {} and {}", rule, left, right));
    }
    void expectConfirmedReports(const Life& life, const Books& books) {
        uint64_t missing = 0;
        for (const ClientBook& client : life.clients) {
            for (const auto& [first, count] : client.confirmed) {
                for (uint64_t number = first; number < first + count; ++number) {
                    if (categoryOf(number) != kListedCategory && !books.received(number)) ++missing;
                }
            }
        }
        expect(missing == 0, "reports of an answered flush that never arrived", missing, 0);
    }

    std::vector<std::string> found;
};

}  // namespace

uint64_t Ledger::lostBy(const std::string& cause) const {
    const auto found = lost.find(cause);
    return found != lost.end() ? found->second : 0;
}

uint64_t Ledger::lostInAll() const {
    uint64_t sum = 0;
    for (const auto& [cause, count] : lost)
        sum += count;
    return sum;
}

std::optional<DaemonState> stateOf(const std::string& socketPath) {
    const auto answer = queryStatus(kGetStatus, statusSocketBeside(socketPath));
    if (!answer) return std::nullopt;
    DaemonState state;
    if (const Array* sessions = answer->array(status::kSessions)) state.sessions = sessions->size();
    state.httpPending = answer->integer(status::kHttpPending).value_or(0);
    const Dictionary* totals = answer->dictionary(status::kTotals);
    const Dictionary* account = totals ? totals->dictionary(kTelvoraBackendHTTPPost) : nullptr;
    if (account == nullptr) return state;
    state.ledger = {unsignedAt(*account, status::kAccepted),
                    unsignedAt(*account, status::kInFlight),
                    unsignedAt(*account, status::kHeld),
                    unsignedAt(*account, status::kDelivered),
                    {}};
    if (const Dictionary* lost = account->dictionary(status::kLost)) {
        for (const auto& [cause, count] : *lost)
            state.ledger.lost[cause] = unsignedAt(*lost, cause.c_str());
    }
    return state;
}

std::vector<std::string> auditQuietEnd(const Life& life, const Books& books) {
    Findings findings;
    findings.expectConfirmedReports(life, books);
    if (!life.ledger) return {"the daemon does not answer"};
    const Ledger& ledger = *life.ledger;
    const Sums sums = sumsOf(life.clients);
    findings.expect(ledger.inFlight + ledger.held == 0, "in flight and held", ledger.inFlight, ledger.held);
    findings.expect(ledger.accepted == ledger.delivered + ledger.lostInAll(), "accepted = delivered + lost",
                    ledger.accepted, ledger.delivered + ledger.lostInAll());
    // An answer that the end of the server's listener cuts off is in the server's book alone.
    findings.expect(ledger.delivered <= life.page.delivered, "delivered <= answered 2xx", ledger.delivered,
                    life.page.delivered);
    findings.expect(life.page.delivered <= ledger.delivered + ledger.lostBy("noAnswer"),
                    "answered 2xx <= delivered + noAnswer", life.page.delivered,
                    ledger.delivered + ledger.lostBy("noAnswer"));
    findings.expect(ledger.lostBy("rejected") == life.page.rejected, "rejected = answered 4xx",
                    ledger.lostBy("rejected"), life.page.rejected);
    findings.expect(ledger.lostBy("serverError") == life.page.serverError, "serverError = answered 5xx",
                    ledger.lostBy("serverError"), life.page.serverError);
    // `noAnswer` has no counterpart: a request may meet a connection that the server closes.
    const uint64_t neverArrived =
        ledger.accepted - ledger.delivered - ledger.lostBy("rejected") - ledger.lostBy("serverError");
    findings.expect(sums.acknowledged <= life.page.numbered + neverArrived,
                    "acknowledged <= arrived + lost by cause", sums.acknowledged,
                    life.page.numbered + neverArrived);
    findings.expect(ledger.accepted <= sums.sent + kOwnReports * sums.sessions,
                    "accepted <= sent + the sessions' own", ledger.accepted,
                    sums.sent + kOwnReports * sums.sessions);
    return findings.found;
}

std::vector<std::string> auditBusyEnd(const Life& life, const Books& books) {
    Findings findings;
    findings.expectConfirmedReports(life, books);
    const uint64_t acknowledged = sumsOf(life.clients).acknowledged;
    const uint64_t lost = life.lostInOrder.value_or(0);
    // The last line leaves out the reports of backends that a 5xx has disabled.
    if (life.page.serverError == 0) {
        findings.expect(acknowledged <= life.page.numbered + lost, "acknowledged <= arrived + the last line",
                        acknowledged, life.page.numbered + lost);
    }
    return findings.found;
}

std::vector<std::string> auditKill(const Life& life, const Books& books) {
    Findings findings;
    findings.expectConfirmedReports(life, books);
    if (life.ledger) {
        findings.expect(life.ledger->delivered <= life.page.delivered,
                        "delivered before the kill <= answered 2xx", life.ledger->delivered,
                        life.page.delivered);
    }
    return findings.found;
}

}  // namespace telvora::bench
