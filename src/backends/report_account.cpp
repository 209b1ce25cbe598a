// SPDX-License-Identifier: Apache-2.0
#include "backends/report_account.h"

namespace telvora {

namespace {

// Places that a report may pass after it was accepted: in flight, held, and its outcome.
constexpr size_t kOutcomesAhead = 4;

}  // namespace

const char* nameOf(ReportOutcome outcome) {
    static constexpr std::array<const char*, kReportOutcomes> kNames = {"inFlight",
                                                                        "held",
                                                                        "delivered",
                                                                        "kept",
                                                                        "notWhitelisted",
                                                                        "blacklisted",
                                                                        "disabled",
                                                                        "sampledOut",
                                                                        "noUserInfo",
                                                                        "batchFull",
                                                                        "overQuota",
                                                                        "overDailyQuota",
                                                                        "noMemory",
                                                                        "sessionEnded",
                                                                        "noURL",
                                                                        "notSent",
                                                                        "tooManyPending",
                                                                        "noConnection",
                                                                        "noAnswer",
                                                                        "rejected",
                                                                        "serverError",
                                                                        "notSupported",
                                                                        "noAdaptor",
                                                                        "notConfigured",
                                                                        "incomplete",
                                                                        "noBackend",
                                                                        "fileRefused",
                                                                        "fileTooLarge",
                                                                        "fileUnreadable",
                                                                        "oversized",
                                                                        "outboxFull",
                                                                        "expired",
                                                                        "consentWithdrawn",
                                                                        "identifiersReset",
                                                                        "damaged"};
    return kNames[static_cast<size_t>(outcome)];
}

ReportOutcome outcomeOf(const HttpResult& result) {
    if (!result) {
        switch (result.error().kind) {
            case HttpError::Kind::notSent:
                return ReportOutcome::notSent;
            case HttpError::Kind::noMemory:
                return ReportOutcome::noMemory;
            case HttpError::Kind::tooManyPending:
                return ReportOutcome::tooManyPending;
            case HttpError::Kind::noConnection:
                return ReportOutcome::noConnection;
            case HttpError::Kind::noAnswer:
                return ReportOutcome::noAnswer;
        }
    }
    const int status = result->status;
    if (status >= 500 && status <= 599) return ReportOutcome::serverError;
    return isSuccess(*result) ? ReportOutcome::delivered : ReportOutcome::rejected;
}

void ReportTally::add(const ReportTally& other) {
    accepted += other.accepted;
    for (size_t i = 0; i < kReportOutcomes; ++i)
        outcomes[i] += other.outcomes[i];
    for (size_t i = 0; i < kDecisions; ++i)
        disabledBecause[i] += other.disabledBecause[i];
}

uint64_t failedOrPending(const ReportTally& tally) {
    uint64_t reports = tally[ReportOutcome::inFlight] + tally[ReportOutcome::held];
    for (const ReportOutcome failure :
         {ReportOutcome::batchFull, ReportOutcome::overQuota, ReportOutcome::overDailyQuota,
          ReportOutcome::noMemory, ReportOutcome::sessionEnded, ReportOutcome::notSent,
          ReportOutcome::tooManyPending, ReportOutcome::noConnection, ReportOutcome::noAnswer,
          ReportOutcome::rejected, ReportOutcome::serverError}) {
        reports += tally[failure];
    }
    return reports;
}

uint64_t& ReportAccount::Counters::operator[](size_t index) {
    for (auto& [used, count] : used_) {
        if (used == index) return count;
    }
    return used_.emplace_back(index, 0).second;
}

ReportAccount::~ReportAccount() {
    if (ledger_ != nullptr) ledger_->close(*this);
}

void ReportAccount::accept(ReportOutcome outcome, uint64_t reports) {
    const MutexLock lock(lock_);
    // So that move() needs no memory: a report that is lost for lack of it is counted.
    outcomes_.reserve(kOutcomesAhead);
    disabledBecause_.reserve(1);
    accepted_ += reports;
    outcomes_[static_cast<size_t>(outcome)] += reports;
}

void ReportAccount::move(uint64_t reports, ReportOutcome from, ReportOutcome to, Decision reason) {
    if (reports == 0) return;  // an account that has accepted none has no memory for counters yet
    const MutexLock lock(lock_);
    if (to == ReportOutcome::disabled) disabledBecause_[static_cast<size_t>(reason)] += reports;
    outcomes_[static_cast<size_t>(from)] -= reports;
    outcomes_[static_cast<size_t>(to)] += reports;
}

ReportTally ReportAccount::tally() const {
    ReportTally tally;
    const MutexLock lock(lock_);
    tally.accepted = accepted_;
    outcomes_.copyTo(tally.outcomes);
    disabledBecause_.copyTo(tally.disabledBecause);
    return tally;
}

std::shared_ptr<ReportAccount> ReportLedger::open(const std::string& name, int clientType) {
    const std::string* lasting = nullptr;
    {
        const MutexLock lock(lock_);
        lasting = &closed_[clientType].try_emplace(name).first->first;
    }
    // Without the lock, which its destructor takes: there may be no memory to share it.
    std::shared_ptr<ReportAccount> account(new ReportAccount(*this, *lasting, clientType));
    const MutexLock lock(lock_);
    open_.insert(account.get());
    return account;
}

void ReportLedger::close(const ReportAccount& account) {
    const MutexLock lock(lock_);
    open_.erase(&account);
    closed_.find(account.clientType_)->second.find(*account.name_)->second.add(account.tally());
}

std::map<int, ReportTallies> ReportLedger::totalsByClientType() const {
    const MutexLock lock(lock_);
    std::map<int, ReportTallies> totals = closed_;
    for (const ReportAccount* account : open_)
        totals[account->clientType_][*account->name_].add(account->tally());
    return totals;
}

ReportTallies ReportLedger::totals() const {
    ReportTallies totals;
    for (const auto& [clientType, tallies] : totalsByClientType()) {
        for (const auto& [name, tally] : tallies)
            totals[name].add(tally);
    }
    return totals;
}

std::shared_ptr<ReportAccount> ClientAccounts::of(const std::string& name) {
    const int clientType = clientType_;
    const MutexLock lock(lock_);
    for (const auto& account : accounts_) {
        if (account->clientType_ == clientType && *account->name_ == name) return account;
    }
    return accounts_.emplace_back(ledger_.open(name, clientType));
}

ReportTallies ClientAccounts::tallies() const {
    const MutexLock lock(lock_);
    ReportTallies tallies;
    for (const auto& account : accounts_)
        tallies[*account->name_].add(account->tally());
    return tallies;
}

}  // namespace telvora
