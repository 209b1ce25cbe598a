// SPDX-License-Identifier: Apache-2.0
//
// Exact accounts of the outcomes of reports. Each backend of a client has one account. A report enters it
// once, when the backend is to send it, and has exactly one outcome at any moment:
//
//     accepted = inFlight + held + delivered + kept + sum of the losses by cause
//
// Only move() changes outcomes. It subtracts and adds under the account's lock, so that every tally satisfies
// the equation. A post knows its number of reports and settles them when the server has answered: on the HTTP
// thread, possibly after the session's end, as the backend keeps the account alive. Uploads are counted in
// the same way.
//
// All operations are callable from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "access/user_quotas.h"
#include "http/http_client.h"
#include "policy/decision_trace.h"
#include "util/mutex.h"

namespace telvora {

enum class ReportOutcome : uint8_t {
    inFlight,   // being processed, or posted and not yet answered
    held,       // in the batch
    delivered,  // the server has confirmed it, or the metrics adaptor was called
    kept,       // in the outbox, whose account has its further outcome
    // From here on: causes of losses.
    notWhitelisted,  // its category is not on the white list
    blacklisted,     // its category is on the black list
    disabled,        // the backend does not report
    sampledOut,      // a flush of a sampled-out backend discarded it
    noUserInfo,      // a flush of a backend that waited for user info discarded it
    batchFull,       // the batch was full and could not be flushed
    overQuota,       // a quota of its user was used up
    overDailyQuota,  // its user has posted as much as is allowed in a day
    noMemory,        // there was no memory for it
    sessionEnded,    // the backend ended while it held the report
    noURL,           // the bag names no server
    notSent,         // the request could not be made, or the daemon was ending
    tooManyPending,  // too many requests or uploads were under way; of a copy: too many were unread
    noConnection,    // the server, or the client that aggregates, could not be reached
    noAnswer,        // the server may have it or not
    rejected,        // the server's answer was neither 2xx nor 5xx; of a file: not "success"
    serverError,     // the server's answer was 5xx
    notSupported,    // the backend takes no reports from sessions
    noAdaptor,       // the metrics adaptor could not be loaded, or takes no reports
    notConfigured,   // no backend: the session has no configuration
    incomplete,      // no backend: the report lacks a mandatory parameter
    noBackend,       // no backend: the configuration names no backend
    fileRefused,     // of a file: it may not be read
    fileTooLarge,
    fileUnreadable,    // also of an empty file
    oversized,         // of the outbox: larger than all messages in it may be
    outboxFull,        // of the outbox: newer messages took its place
    expired,           // of the outbox: no server took it in time
    consentWithdrawn,  // of the outbox: the user no longer shares diagnostics
    identifiersReset,  // of the outbox: it has identifiers that were reset
    damaged,           // of the outbox: its file was damaged
};
inline constexpr size_t kReportOutcomes = static_cast<size_t>(ReportOutcome::damaged) + 1;
inline constexpr size_t kFirstLoss = static_cast<size_t>(ReportOutcome::notWhitelisted);

// Name of an outcome on the wire, as it is spelled above.
const char* nameOf(ReportOutcome outcome);

// The outcome of the reports of a post with this result.
ReportOutcome outcomeOf(const HttpResult& result);

struct ReportTally {
    uint64_t accepted = 0;
    std::array<uint64_t, kReportOutcomes> outcomes{};
    std::array<uint64_t, kDecisions> disabledBecause{};  // ReportOutcome::disabled by the reason of the state

    uint64_t operator[](ReportOutcome outcome) const { return outcomes[static_cast<size_t>(outcome)]; }
    void add(const ReportTally& other);
};

class ReportLedger;

class ReportAccount {
  public:
    // An account outside all ledgers.
    ReportAccount() = default;
    ~ReportAccount();
    ReportAccount(const ReportAccount&) = delete;
    ReportAccount& operator=(const ReportAccount&) = delete;

    // Enters further reports with this outcome.
    void accept(ReportOutcome outcome = ReportOutcome::inFlight, uint64_t reports = 1)
        TELVORA_EXCLUDES(lock_);
    // Changes the outcome of `reports` reports from `from` to `to`. `reason`: of the state, for
    // ReportOutcome::disabled.
    void move(uint64_t reports, ReportOutcome from, ReportOutcome to,
              Decision reason = Decision::unconditional) TELVORA_EXCLUDES(lock_);
    ReportTally tally() const TELVORA_EXCLUDES(lock_);

  private:
    friend class ClientAccounts;
    friend class ReportLedger;
    ReportAccount(ReportLedger& ledger, const std::string& name, int clientType)
        : ledger_(&ledger), name_(&name), clientType_(clientType) {}

    // The counters that were ever used.
    class Counters {
      public:
        uint64_t& operator[](size_t index);
        // Takes memory for as many counters that are not used yet.
        void reserve(size_t unused) { used_.reserve(used_.size() + unused); }
        template <size_t size>
        void copyTo(std::array<uint64_t, size>& counters) const {
            for (const auto& [index, count] : used_)
                counters[index] = count;
        }

      private:
        std::vector<std::pair<size_t, uint64_t>> used_;
    };

    ReportLedger* const ledger_ = nullptr;
    const std::string* const name_ = nullptr;  // the ledger's
    const int clientType_ = -1;
    mutable Mutex lock_;
    uint64_t accepted_ TELVORA_GUARDED_BY(lock_) = 0;
    // Most sessions need few of the counters of a tally, and it takes half a kilobyte.
    Counters outcomes_ TELVORA_GUARDED_BY(lock_);
    Counters disabledBecause_ TELVORA_GUARDED_BY(lock_);
};

// The sums of all accounts of one name, by that name.
using ReportTallies = std::map<std::string, ReportTally>;

// Reports that are in flight, or none. Those without another outcome at its end are lost: an exception has
// passed, and only one for lack of memory can. Belongs to one thread at a time.
class InFlightReports {
  public:
    InFlightReports() = default;
    InFlightReports(std::shared_ptr<ReportAccount> account, size_t reports)
        : account_(std::move(account)), reports_(reports) {}
    InFlightReports(InFlightReports&&) noexcept = default;
    InFlightReports& operator=(InFlightReports&& other) noexcept {
        settle(ReportOutcome::noMemory);
        account_ = std::move(other.account_);
        reports_ = other.reports_;
        return *this;
    }
    ~InFlightReports() { settle(ReportOutcome::noMemory); }

    size_t count() const { return reports_; }
    // The outcome of the reports, which are then no longer in flight. Without effect on none. `reason`: see
    // ReportAccount::move().
    void settle(ReportOutcome outcome, Decision reason = Decision::unconditional) noexcept {
        if (const auto account = std::move(account_))
            account->move(reports_, ReportOutcome::inFlight, outcome, reason);
    }

  private:
    std::shared_ptr<ReportAccount> account_;
    size_t reports_ = 0;
};

// The accounts of all clients, including clients that have ended. Outlives its accounts.
class ReportLedger {
  public:
    static constexpr int kNoClientType = -1;

    std::shared_ptr<ReportAccount> open(const std::string& name, int clientType = kNoClientType)
        TELVORA_EXCLUDES(lock_);
    ReportTallies totals() const TELVORA_EXCLUDES(lock_);
    // The totals of the clients of each type.
    std::map<int, ReportTallies> totalsByClientType() const TELVORA_EXCLUDES(lock_);

  private:
    friend class ReportAccount;
    void close(const ReportAccount& account) TELVORA_EXCLUDES(lock_);

    mutable Mutex lock_{LockRank::ledger};
    std::unordered_set<const ReportAccount*> open_ TELVORA_GUARDED_BY(lock_);
    std::map<int, ReportTallies> closed_ TELVORA_GUARDED_BY(lock_);  // by client type
};

// Number of reports and uploads that failed or are still pending, and would be lost if the daemon ended now.
// Reports that the configuration or the user's settings exclude do not count.
uint64_t failedOrPending(const ReportTally& tally);

// The accounts of one client: one for each backend and three others. They remain when the client's backends
// are made anew, unless its type has changed. Also keeps the user whose quotas the client's reports count
// against.
class ClientAccounts {
  public:
    static constexpr char kNoBackend[] = "none";  // reports that reach no backend
    static constexpr char kUploads[] = "uploads";
    static constexpr char kAggregator[] = "aggregator";  // copies for the client's aggregation block

    explicit ClientAccounts(ReportLedger& ledger, QuotaUser user = {})
        : ledger_(ledger), user_(std::move(user)) {}

    // Assigns accounts that are used from now on to a client type, or to ReportLedger::kNoClientType.
    void setClientType(int clientType) { clientType_ = clientType; }
    // The account of that name, which its first use opens.
    std::shared_ptr<ReportAccount> of(const std::string& name) TELVORA_EXCLUDES(lock_);
    ReportTallies tallies() const TELVORA_EXCLUDES(lock_);
    const QuotaUser& user() const { return user_; }

  private:
    ReportLedger& ledger_;
    const QuotaUser user_;
    std::atomic<int> clientType_{ReportLedger::kNoClientType};
    mutable Mutex lock_{LockRank::accounts};
    std::vector<std::shared_ptr<ReportAccount>> accounts_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
