// SPDX-License-Identifier: Apache-2.0
//
// What becomes of reports, counted exactly. For every client and backend there is one account; a report
// enters it once, when the backend is to have it, and from then on is in one place of it at any moment:
//
//     accepted = inFlight + held + delivered + the sum of what was lost, by cause
//
// Places change by move() only, which takes from one what it gives to another under the account's lock, so
// that every tally holds the equation. A post carries its number of reports along and settles them when the
// server has answered, on the HTTP thread, maybe after the session's end: the backend keeps the account
// alive. Uploads are counted likewise.
//
// Everything here may be called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>

#include "access/user_quotas.h"
#include "http/http_client.h"
#include "util/mutex.h"

namespace telvora {

enum class ReportOutcome : uint8_t {
    inFlight,   // in the backend's hands, or posted and not answered yet
    held,       // in the batch
    delivered,  // the server has said that it has it; the metrics adaptor has been called
    // From here on: lost, and why.
    notWhitelisted,  // its category is not on the white list
    blacklisted,     // its category is on the black list
    disabled,        // the backend does not report
    sampledOut,      // held by a backend that was not drawn, until a flush threw it away
    noUserInfo,      // held by a backend that waited for user info, likewise
    batchFull,       // the batch was at its bound and could not be flushed
    overQuota,       // its user had as much pending as one user may have
    sessionEnded,    // held by a backend when that ended
    noURL,           // the bag names no server
    notSent,         // the request could not be made, or the daemon was ending
    tooManyPending,  // too many requests or uploads were under way; of a copy: too many were unread
    noConnection,    // the server, or the client that was to have a copy, could not be reached
    noAnswer,        // the server may or may not have it
    rejected,        // the server's answer was neither 2xx nor 5xx; of a file: not "success"
    serverError,     // the server's answer was 5xx
    notSupported,    // the backend takes no reports from sessions
    noAdaptor,       // the metrics adaptor could not be loaded, or takes none
    notConfigured,   // no backend: the session has no configuration
    incomplete,      // no backend: something mandatory is missing in it
    noBackend,       // no backend: the configuration names none
    fileRefused,     // of a file: it may not be read
    fileTooLarge,
    fileUnreadable,  // or empty
};
inline constexpr size_t kReportOutcomes = static_cast<size_t>(ReportOutcome::fileUnreadable) + 1;
inline constexpr size_t kFirstLoss = static_cast<size_t>(ReportOutcome::notWhitelisted);

// An outcome's name on the wire, as it is written above.
const char* nameOf(ReportOutcome outcome);

// Where reports are once their post has ended so.
ReportOutcome outcomeOf(const HttpResult& result);

struct ReportTally {
    uint64_t accepted = 0;
    std::array<uint64_t, kReportOutcomes> outcomes{};

    uint64_t operator[](ReportOutcome outcome) const { return outcomes[static_cast<size_t>(outcome)]; }
    void add(const ReportTally& other);
};

class ReportLedger;

class ReportAccount {
  public:
    // An account that nobody sums up.
    ReportAccount() = default;
    ~ReportAccount();
    ReportAccount(const ReportAccount&) = delete;
    ReportAccount& operator=(const ReportAccount&) = delete;

    // One more report, which is at `outcome`.
    void accept(ReportOutcome outcome = ReportOutcome::inFlight) TELVORA_EXCLUDES(lock_);
    void move(size_t reports, ReportOutcome from, ReportOutcome to) TELVORA_EXCLUDES(lock_);
    ReportTally tally() const TELVORA_EXCLUDES(lock_);

  private:
    friend class ReportLedger;
    ReportAccount(ReportLedger& ledger, std::string name) : ledger_(&ledger), name_(std::move(name)) {}

    ReportLedger* const ledger_ = nullptr;
    const std::string name_;
    mutable Mutex lock_;
    ReportTally tally_ TELVORA_GUARDED_BY(lock_);
};

// The accounts of all clients, those included that have ended. Outlives its accounts.
class ReportLedger {
  public:
    std::shared_ptr<ReportAccount> open(const std::string& name) TELVORA_EXCLUDES(lock_);
    // By the accounts' names.
    std::map<std::string, ReportTally> totals() const TELVORA_EXCLUDES(lock_);

  private:
    friend class ReportAccount;
    void close(const ReportAccount& account) TELVORA_EXCLUDES(lock_);

    mutable Mutex lock_{LockRank::ledger};
    std::unordered_set<const ReportAccount*> open_ TELVORA_GUARDED_BY(lock_);
    std::map<std::string, ReportTally> closed_ TELVORA_GUARDED_BY(lock_);
};

// How many reports and uploads a daemon that ended now would have lost against its will: what is still on its
// way, and what failed; not what the configuration or the user kept back.
uint64_t failedOrPending(const ReportTally& tally);

// The accounts of one client: by backend, and three more. They stay when the client's backends are made anew.
// With them goes the user whose quotas the client's reports count against.
class ClientAccounts {
  public:
    static constexpr char kNoBackend[] = "none";  // of the reports that reach no backend
    static constexpr char kUploads[] = "uploads";
    static constexpr char kAggregator[] = "aggregator";  // of the copies for the client's aggregation block

    explicit ClientAccounts(ReportLedger& ledger, QuotaUser user = {})
        : ledger_(ledger), user_(std::move(user)) {}

    // The account of that name, which is opened with its first use.
    std::shared_ptr<ReportAccount> of(const std::string& name) TELVORA_EXCLUDES(lock_);
    std::map<std::string, ReportTally> tallies() const TELVORA_EXCLUDES(lock_);
    const QuotaUser& user() const { return user_; }

  private:
    ReportLedger& ledger_;
    const QuotaUser user_;
    mutable Mutex lock_{LockRank::accounts};
    std::map<std::string, std::shared_ptr<ReportAccount>> accounts_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
