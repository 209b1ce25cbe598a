// SPDX-License-Identifier: Apache-2.0
//
// UserQuotas: limits the resources that one user's programs can take. A request beyond a quota is refused to
// that user alone and logged: once, then at most once a minute with the number of refusals since. All users
// have the same limits, root and the daemon's own user included.
//
// The quotas of a user are counted in one place for all connections (UserShare in user_quotas.cpp): a
// QuotaUser refers to it, a QuotaCharge is an amount taken from one quota. Taking and releasing cost a few
// atomic operations. A user without references is forgotten at a later connection, once the minute of its
// last refusal and log line is over.
//
// The limits are user defaults. They are read at every connection and every status request, and then apply to
// everybody; amounts already taken stay taken.
//
// All operations are callable from any thread, but a QuotaCharge only from one thread at a time.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "access/daily_use.h"
#include "async/blocking_share.h"
#include "async/user_turns.h"
#include "platform/known_settings.h"
#include "util/log.h"
#include "util/mutex.h"

namespace telvora {

enum class Quota : uint8_t {
    connections,       // to either socket, until both ends have closed them
    sessions,          // with a valid connection
    pendingBytes,      // of reports in batches and in posts without an answer
    unreadBytes,       // of messages that wait until the user's clients read earlier ones
    dormantBytes,      // of reports in batches that a flush would currently drop
    inputBytes,        // of messages that have arrived in part or wait for earlier ones
    sessionBytes,      // of session infos and user infos
    extensionTokens,   // unused; each holds a descriptor
    reportsToday,      // posted; taken by spendToday() alone
    reportBytesToday,  // of these
    logLines,          // per minute, above the debug level, for the user's clients
};
inline constexpr size_t kQuotas = static_cast<size_t>(Quota::logLines) + 1;

struct QuotaRule {
    const char* name;        // in the log and on the wire
    const Setting& setting;  // the limit
};
const QuotaRule& ruleOf(Quota quota);

class UserQuotas;
struct UserShare;

// An amount of one quota of one user, or empty. Destruction releases it.
class QuotaCharge {
  public:
    QuotaCharge() = default;
    QuotaCharge(QuotaCharge&& other) noexcept { swap(other); }
    QuotaCharge& operator=(QuotaCharge&& other) noexcept;
    ~QuotaCharge() { resize(0); }

    // Changes the amount. An increase is never refused, but counts against later requests.
    void resize(uint64_t amount);
    // Moves the amount to this quota; never refused.
    void countAs(Quota quota);
    // Adds another charge of the same user, moved to the quota of this one.
    void add(QuotaCharge other);

  private:
    friend class QuotaUser;
    void swap(QuotaCharge& other) noexcept;

    std::shared_ptr<UserShare> share_;
    Quota quota_{};
    uint64_t amount_ = 0;
};

// One client of one user. A default-constructed one has no user, and is never refused.
class QuotaUser {
  public:
    QuotaUser() = default;

    // Adds the amount to a charge that is empty or of this user and quota. False if the user would exceed its
    // quota; then the charge is unchanged, and the refusal is counted and logged.
    bool take(Quota quota, uint64_t amount, QuotaCharge& charge) const;
    // Whether the daily quotas allow to post a further report of so many bytes, which counts then. False
    // likewise.
    bool spendToday(uint64_t bytes) const;
    // The same for a new charge.
    std::optional<QuotaCharge> take(Quota quota, uint64_t amount) const {
        QuotaCharge charge;
        return take(quota, amount, charge) ? std::optional(std::move(charge)) : std::nullopt;
    }
    // For a LogScope around work for this client. Valid as long as any copy of this object. The lines of the
    // user's other clients can use up the user's quota, but not the errors and warnings that each client has
    // besides.
    LogAdmission* logAdmission() const;
    // The user's part of the threads that may block; null without a user. Valid as long as any copy of this
    // object.
    BlockingShare* blockingShare() const;
    // The turns of the user's connections; null without a user.
    std::shared_ptr<UserTurns> turns() const;
    // The user; std::nullopt without one.
    std::optional<uid_t> uid() const;

  private:
    friend class UserQuotas;
    explicit QuotaUser(std::shared_ptr<UserShare> share);

    std::shared_ptr<UserShare> share_;
    std::shared_ptr<LogAdmission> log_;
};

struct QuotaUse {
    uint64_t held = 0;
    uint64_t limit = 0;
    uint64_t refused = 0;  // number of refusals, since the user was last forgotten
};

// Must outlive every QuotaUser and QuotaCharge.
class UserQuotas {
  public:
    using SteadyClock = std::function<std::chrono::steady_clock::time_point()>;

    // `defaults` must outlive this object. `dailyUse`: the file that carries the use of the daily quotas over
    // the daemon's end; empty: none does.
    explicit UserQuotas(UserDefaults& defaults, SteadyClock clock = std::chrono::steady_clock::now,
                        std::filesystem::path dailyUse = {}, std::function<Moment()> moment = currentMoment);
    ~UserQuotas();

    // A handle for one client of the user. Reads the limits. May block on file I/O.
    QuotaUser of(uid_t user) TELVORA_EXCLUDES(lock_);
    // The known users and their quotas in the order of Quota. Reads the limits. May block on file I/O.
    std::map<uid_t, std::array<QuotaUse, kQuotas>> uses() TELVORA_EXCLUDES(lock_);
    // Logs the refusals that have not been logged yet. Called at the end of the daemon.
    void logRefusals() TELVORA_EXCLUDES(lock_);
    // Whether there are daily quotas.
    bool limitsDays() const;
    // Writes the file, or removes it if there are no daily quotas. Called at the end of the daemon. Blocks on
    // file I/O.
    void keepDailyUse();

  private:
    friend struct UserShare;
    void readLimits();
    uint64_t limitOf(Quota quota) const {
        return limits_[static_cast<size_t>(quota)].load(std::memory_order_relaxed);
    }

    UserDefaults& defaults_;
    const SteadyClock clock_;
    const std::filesystem::path dailyUseFile_;
    DailyUse dailyUse_;
    std::array<std::atomic<uint64_t>, kQuotas> limits_{};
    std::atomic<uint64_t> limitsVersion_{0};  // UserDefaults::version() at the time of their reading
    Mutex lock_{LockRank::users};
    std::map<uid_t, std::shared_ptr<UserShare>> users_ TELVORA_GUARDED_BY(lock_);
    std::chrono::steady_clock::time_point nextSweep_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
