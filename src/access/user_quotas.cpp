// SPDX-License-Identifier: Apache-2.0
#include "access/user_quotas.h"

#include <algorithm>
#include <utility>

namespace telvora {

namespace {

using TimePoint = std::chrono::steady_clock::time_point;

// Window for counting log lines, and least time between two lines about refusals.
constexpr std::chrono::minutes kPeriod{1};
// Errors and warnings in a period that each client may log beyond its user's quota. All clients of a user
// together may log this number for each session that the user may have, so that reconnecting gains no more.
constexpr uint64_t kOwnErrorLines = 10;

constexpr std::array<QuotaRule, kQuotas> kRules = {{
    {"connections", settings::kMaxConnections},
    {"sessions", settings::kMaxSessions},
    {"pendingBytes", settings::kMaxPendingBytes},
    {"unreadBytes", settings::kMaxUnreadBytes},
    {"dormantBytes", settings::kMaxDormantBytes},
    {"inputBytes", settings::kMaxInputBytes},
    {"sessionBytes", settings::kMaxSessionBytes},
    {"extensionTokens", settings::kMaxExtensionTokens},
    {"reportsToday", settings::kMaxReportsPerDay},
    {"reportBytesToday", settings::kMaxReportBytesPerDay},
    {"logLines", settings::kMaxLogLines},
}};

constexpr Quota quotaAt(size_t index) {
    return static_cast<Quota>(index);
}

}  // namespace

const QuotaRule& ruleOf(Quota quota) {
    return kRules[static_cast<size_t>(quota)];
}

// Errors and warnings of one client beyond its user's quota, in the period that ends at `periodEnd`.
struct OwnErrorLines {
    uint64_t count = 0;
    TimePoint periodEnd;
};

// The charges and refusals of one user.
struct UserShare {
    UserShare(UserQuotas& quotas, uid_t user) : quotas_(quotas), user_(user) {}

    BlockingShare threads;
    UserTurns turns;

    uid_t user() const { return user_; }
    std::atomic<uint64_t>& held(Quota quota) { return held_[static_cast<size_t>(quota)]; }
    bool take(Quota quota, uint64_t amount);
    bool spendToday(uint64_t bytes) TELVORA_EXCLUDES(lock_);
    // `client` is guarded by this object's lock.
    bool admitsLine(int level, OwnErrorLines& client) TELVORA_EXCLUDES(lock_);
    std::array<QuotaUse, kQuotas> uses() TELVORA_EXCLUDES(lock_);
    // Logs the refusals that have not been logged and are due.
    void logRefusals(TimePoint now) TELVORA_EXCLUDES(lock_);
    // Whether no refusal and no log line counts any more.
    bool isQuiet(TimePoint now) TELVORA_EXCLUDES(lock_);

  private:
    struct Refusals {
        uint64_t all = 0;
        uint64_t unlogged = 0;
        TimePoint nextLine;  // not before
    };

    bool holdsTooMuch(Quota quota);
    void refuse(Quota quota, TimePoint now) TELVORA_EXCLUDES(lock_);
    void logUnlogged(Quota quota, uint64_t refusals) const;

    UserQuotas& quotas_;
    const uid_t user_;
    std::array<std::atomic<uint64_t>, kQuotas> held_{};  // except log lines and daily quotas
    Mutex lock_{LockRank::userLog};
    uint64_t lines_ TELVORA_GUARDED_BY(lock_) = 0;  // logged in this period
    uint64_t ownErrorLines_ TELVORA_GUARDED_BY(lock_) =
        0;  // errors and warnings beyond the quota in this period
    TimePoint periodEnd_ TELVORA_GUARDED_BY(lock_);
    std::array<Refusals, kQuotas> refusals_ TELVORA_GUARDED_BY(lock_);
};

bool UserShare::take(Quota quota, uint64_t amount) {
    held(quota) += amount;
    if (!holdsTooMuch(quota)) return true;
    held(quota) -= amount;
    refuse(quota, quotas_.clock_());
    return false;
}

bool UserShare::spendToday(uint64_t bytes) {
    if (!quotas_.limitsDays()) return true;
    const DailyUse::Amount limits{quotas_.limitOf(Quota::reportsToday),
                                  quotas_.limitOf(Quota::reportBytesToday)};
    const DailyUse::Spent spent = quotas_.dailyUse_.spend(user_, bytes, limits);
    if (spent == DailyUse::Spent::yes) return true;
    refuse(spent == DailyUse::Spent::tooManyReports ? Quota::reportsToday : Quota::reportBytesToday,
           quotas_.clock_());
    return false;
}

// Bytes may move from one of the two quotas to the other without a check: a limit for their sum bounds both.
bool UserShare::holdsTooMuch(Quota quota) {
    if (held(quota) > quotas_.limitOf(quota)) return true;
    if (quota != Quota::pendingBytes && quota != Quota::dormantBytes) return false;
    return held(Quota::pendingBytes) + held(Quota::dormantBytes) >
           quotas_.limitOf(Quota::pendingBytes) + quotas_.limitOf(Quota::dormantBytes);
}

bool UserShare::admitsLine(int level, OwnErrorLines& client) {
    const TimePoint now = quotas_.clock_();
    bool begins = false;
    bool admitted = false;
    {
        const MutexLock lock(lock_);
        begins = now >= periodEnd_;
        if (begins) {
            periodEnd_ = now + kPeriod;
            lines_ = 0;
            ownErrorLines_ = 0;
        }
        admitted = lines_ < quotas_.limitOf(Quota::logLines);
        if (admitted) {
            ++lines_;
        } else if (level <= kLogWarning) {
            if (client.periodEnd != periodEnd_) client = {0, periodEnd_};
            admitted = client.count < kOwnErrorLines &&
                       ownErrorLines_ / kOwnErrorLines < quotas_.limitOf(Quota::sessions);
            if (admitted) {
                ++client.count;
                ++ownErrorLines_;
            }
        }
    }
    if (begins) logRefusals(now);
    if (!admitted) refuse(Quota::logLines, now);
    return admitted;
}

void UserShare::refuse(Quota quota, TimePoint now) {
    uint64_t before = 0;
    {
        const MutexLock lock(lock_);
        Refusals& refusals = refusals_[static_cast<size_t>(quota)];
        ++refusals.all;
        if (now < refusals.nextLine) {
            ++refusals.unlogged;
            return;
        }
        before = std::exchange(refusals.unlogged, 0);
        refusals.nextLine = quota == Quota::logLines ? periodEnd_ : now + kPeriod;
    }
    if (before > 0) logUnlogged(quota, before);
    const LogScope nobody(nullptr);
    TELVORA_LOG(kLogError, "UserQuotas: user %u is over the quota of %llu %s (%s)", user_,
                static_cast<unsigned long long>(quotas_.limitOf(quota)), ruleOf(quota).name,
                ruleOf(quota).setting.key.data());
}

void UserShare::logUnlogged(Quota quota, uint64_t refusals) const {
    const LogScope nobody(nullptr);
    TELVORA_LOG(kLogError, "UserQuotas: user %u was over the quota of %s %llu more times", user_,
                ruleOf(quota).name, static_cast<unsigned long long>(refusals));
}

void UserShare::logRefusals(TimePoint now) {
    for (size_t i = 0; i < kQuotas; ++i) {
        uint64_t unlogged = 0;
        {
            const MutexLock lock(lock_);
            if (now >= refusals_[i].nextLine) unlogged = std::exchange(refusals_[i].unlogged, 0);
        }
        if (unlogged > 0) logUnlogged(quotaAt(i), unlogged);
    }
}

bool UserShare::isQuiet(TimePoint now) {
    const MutexLock lock(lock_);
    return now >= periodEnd_ &&
           std::all_of(refusals_.begin(), refusals_.end(),
                       [now](const Refusals& refusals) { return now >= refusals.nextLine; });
}

std::array<QuotaUse, kQuotas> UserShare::uses() {
    const TimePoint now = quotas_.clock_();
    const DailyUse::Amount today = quotas_.limitsDays() ? quotas_.dailyUse_.of(user_) : DailyUse::Amount();
    std::array<QuotaUse, kQuotas> uses;
    const MutexLock lock(lock_);
    for (size_t i = 0; i < kQuotas; ++i) {
        uses[i] = {held_[i].load(std::memory_order_relaxed), quotas_.limitOf(quotaAt(i)), refusals_[i].all};
    }
    uses[static_cast<size_t>(Quota::reportsToday)].held = today.reports;
    uses[static_cast<size_t>(Quota::reportBytesToday)].held = today.bytes;
    uses[static_cast<size_t>(Quota::logLines)].held = now < periodEnd_ ? lines_ : 0;
    return uses;
}

// --- Handles ---

QuotaCharge& QuotaCharge::operator=(QuotaCharge&& other) noexcept {
    QuotaCharge taken(std::move(other));
    swap(taken);
    return *this;
}

void QuotaCharge::swap(QuotaCharge& other) noexcept {
    std::swap(share_, other.share_);
    std::swap(quota_, other.quota_);
    std::swap(amount_, other.amount_);
}

void QuotaCharge::resize(uint64_t amount) {
    // Modulo 2^64: decreases, too.
    if (share_) share_->held(quota_).fetch_add(amount - amount_, std::memory_order_relaxed);
    amount_ = amount;
}

void QuotaCharge::countAs(Quota quota) {
    // Counted twice for a moment, so that it is never uncounted.
    if (share_) {
        share_->held(quota) += amount_;
        share_->held(quota_) -= amount_;
    }
    quota_ = quota;
}

void QuotaCharge::add(QuotaCharge other) {
    if (!share_) return swap(other);
    other.countAs(quota_);
    amount_ += std::exchange(other.amount_, 0);
}

namespace {

struct ClientLog final : LogAdmission {
    explicit ClientLog(std::shared_ptr<UserShare> user) : share(std::move(user)) {}
    bool admitsLine(int level) override { return share->admitsLine(level, ownErrors); }

    const std::shared_ptr<UserShare> share;
    OwnErrorLines ownErrors;
};

}  // namespace

QuotaUser::QuotaUser(std::shared_ptr<UserShare> share)
    : share_(std::move(share)), log_(std::make_shared<ClientLog>(share_)) {}

bool QuotaUser::take(Quota quota, uint64_t amount, QuotaCharge& charge) const {
    if (!share_) return true;
    if (!share_->take(quota, amount)) return false;
    if (!charge.share_) {
        charge.share_ = share_;
        charge.quota_ = quota;
    }
    charge.amount_ += amount;
    return true;
}

bool QuotaUser::spendToday(uint64_t bytes) const {
    return !share_ || share_->spendToday(bytes);
}

LogAdmission* QuotaUser::logAdmission() const {
    return log_.get();
}

BlockingShare* QuotaUser::blockingShare() const {
    return share_ ? &share_->threads : nullptr;
}

std::shared_ptr<UserTurns> QuotaUser::turns() const {
    return share_ ? std::shared_ptr<UserTurns>(share_, &share_->turns) : nullptr;
}

std::optional<uid_t> QuotaUser::uid() const {
    return share_ ? std::optional(share_->user()) : std::nullopt;
}

// --- All users ---

UserQuotas::UserQuotas(UserDefaults& defaults, SteadyClock clock, std::filesystem::path dailyUse,
                       std::function<Moment()> moment)
    : defaults_(defaults),
      clock_(std::move(clock)),
      dailyUseFile_(std::move(dailyUse)),
      dailyUse_(std::move(moment)) {
    readLimits();
    if (limitsDays() && !dailyUseFile_.empty()) dailyUse_.load(dailyUseFile_);
}

bool UserQuotas::limitsDays() const {
    constexpr auto kNoLimit = static_cast<uint64_t>(settings::kMaxReportsPerDay.standard);
    return limitOf(Quota::reportsToday) < kNoLimit || limitOf(Quota::reportBytesToday) < kNoLimit;
}

void UserQuotas::keepDailyUse() {
    if (limitsDays()) return dailyUse_.save(dailyUseFile_);
    std::error_code ignored;
    std::filesystem::remove(dailyUseFile_, ignored);
}

UserQuotas::~UserQuotas() = default;

void UserQuotas::readLimits() {
    const uint64_t version = defaults_.version(kTelvoraDefaultsDomain);
    if (version == limitsVersion_) return;
    for (size_t i = 0; i < kQuotas; ++i) {
        limits_[i].store(static_cast<uint64_t>(integerSetting(defaults_, kRules[i].setting)),
                         std::memory_order_relaxed);
    }
    limitsVersion_ = version;
}

QuotaUser UserQuotas::of(uid_t user) {
    readLimits();
    const TimePoint now = clock_();
    const MutexLock lock(lock_);
    auto known = users_.find(user);
    if (known == users_.end()) known = users_.emplace(user, std::make_shared<UserShare>(*this, user)).first;
    QuotaUser found(known->second);
    if (now >= nextSweep_) {
        nextSweep_ = now + kPeriod;
        for (const auto& [each, share] : users_)
            share->logRefusals(now);
        std::erase_if(users_, [now](const auto& entry) {
            return entry.second.use_count() == 1 && entry.second->isQuiet(now);
        });
    }
    return found;
}

std::map<uid_t, std::array<QuotaUse, kQuotas>> UserQuotas::uses() {
    readLimits();
    std::map<uid_t, std::array<QuotaUse, kQuotas>> uses;
    const MutexLock lock(lock_);
    for (const auto& [user, share] : users_)
        uses.emplace(user, share->uses());
    return uses;
}

void UserQuotas::logRefusals() {
    const MutexLock lock(lock_);
    for (const auto& [user, share] : users_)
        share->logRefusals(TimePoint::max());
}

}  // namespace telvora
