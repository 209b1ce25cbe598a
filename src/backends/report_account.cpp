// SPDX-License-Identifier: Apache-2.0
#include "backends/report_account.h"

namespace telvora {

const char* nameOf(ReportPlace place) {
    static constexpr std::array<const char*, kReportPlaces> kNames = {
        "inFlight",     "held",           "delivered",     "notWhitelisted", "blacklisted",  "disabled",
        "sampledOut",   "noUserInfo",     "batchFull",     "overQuota",      "sessionEnded", "noURL",
        "notSent",      "tooManyPending", "noConnection",  "noAnswer",       "rejected",     "serverError",
        "notSupported", "noAdaptor",      "notConfigured", "incomplete",     "noBackend",    "fileRefused",
        "fileTooLarge", "fileUnreadable"};
    return kNames[static_cast<size_t>(place)];
}

ReportPlace placeAfter(const HttpResult& result) {
    if (!result) {
        switch (result.error().kind) {
            case HttpError::Kind::notSent:
                return ReportPlace::notSent;
            case HttpError::Kind::tooManyPending:
                return ReportPlace::tooManyPending;
            case HttpError::Kind::noConnection:
                return ReportPlace::noConnection;
            case HttpError::Kind::noAnswer:
                return ReportPlace::noAnswer;
        }
    }
    const int status = result->status;
    if (status >= 500 && status <= 599) return ReportPlace::serverError;
    return status >= 200 && status <= 299 ? ReportPlace::delivered : ReportPlace::rejected;
}

void ReportTally::add(const ReportTally& other) {
    accepted += other.accepted;
    for (size_t i = 0; i < kReportPlaces; ++i)
        places[i] += other.places[i];
}

uint64_t failedOrPending(const ReportTally& tally) {
    uint64_t reports = tally[ReportPlace::inFlight] + tally[ReportPlace::held];
    for (const ReportPlace failure :
         {ReportPlace::batchFull, ReportPlace::overQuota, ReportPlace::sessionEnded, ReportPlace::notSent,
          ReportPlace::tooManyPending, ReportPlace::noConnection, ReportPlace::noAnswer,
          ReportPlace::rejected, ReportPlace::serverError}) {
        reports += tally[failure];
    }
    return reports;
}

ReportAccount::~ReportAccount() {
    if (ledger_ != nullptr) ledger_->close(*this);
}

void ReportAccount::accept(ReportPlace place) {
    const MutexLock lock(lock_);
    ++tally_.accepted;
    ++tally_.places[static_cast<size_t>(place)];
}

void ReportAccount::move(size_t reports, ReportPlace from, ReportPlace to) {
    const MutexLock lock(lock_);
    tally_.places[static_cast<size_t>(from)] -= reports;
    tally_.places[static_cast<size_t>(to)] += reports;
}

ReportTally ReportAccount::tally() const {
    const MutexLock lock(lock_);
    return tally_;
}

std::shared_ptr<ReportAccount> ReportLedger::open(const std::string& name) {
    std::shared_ptr<ReportAccount> account(new ReportAccount(*this, name));
    const MutexLock lock(lock_);
    closed_.try_emplace(name);
    open_.insert(account.get());
    return account;
}

void ReportLedger::close(const ReportAccount& account) {
    const MutexLock lock(lock_);
    open_.erase(&account);
    closed_.find(account.name_)->second.add(account.tally());
}

std::map<std::string, ReportTally> ReportLedger::totals() const {
    const MutexLock lock(lock_);
    std::map<std::string, ReportTally> totals = closed_;
    for (const ReportAccount* account : open_)
        totals[account->name_].add(account->tally());
    return totals;
}

std::shared_ptr<ReportAccount> ClientAccounts::of(const std::string& name) {
    const MutexLock lock(lock_);
    std::shared_ptr<ReportAccount>& account = accounts_[name];
    if (!account) account = ledger_.open(name);
    return account;
}

std::map<std::string, ReportTally> ClientAccounts::tallies() const {
    const MutexLock lock(lock_);
    std::map<std::string, ReportTally> tallies;
    for (const auto& [name, account] : accounts_)
        tallies[name] = account->tally();
    return tallies;
}

}  // namespace telvora
