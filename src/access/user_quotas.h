// SPDX-License-Identifier: Apache-2.0
//
// UserQuotas: how much of the daemon one user may take up, whatever that user's programs do. What is over a
// quota is refused to that user alone, and the log is told: once, and then at most once a minute how often
// since. All users have the same limits, root and the daemon's own user too.
//
// A user's quotas are counted in one place for all connections (UserShare in user_quotas.cpp): a QuotaUser
// refers to it, a QuotaCharge is a part of one quota that is taken. Taking and giving back cost a few atomic
// operations. Once nothing refers to a user any more, the user is forgotten within the minute that its
// refusals and its log lines count for, and the next connection of anybody.
//
// The limits are user defaults. They are read with every connection and every question for the status, and
// count from then on for all; what is taken stays taken.
//
// Everything here may be called from any thread, but one QuotaCharge from one at a time.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "platform/user_defaults.h"
#include "util/log.h"
#include "util/mutex.h"

namespace telvora {

enum class Quota : uint8_t {
    connections,      // to either socket, until both ends have let go of them
    sessions,         // whose connection is valid
    pendingBytes,     // of reports that wait in a batch or for a server's answer
    unreadBytes,      // of messages that wait for the user's clients to read those before them
    dormantBytes,     // of reports in batches that a flush would throw away as things stand
    extensionTokens,  // that are unused; each holds a descriptor
    logLines,         // in a minute, above the debug level, on behalf of the user's clients
};
inline constexpr size_t kQuotas = static_cast<size_t>(Quota::logLines) + 1;

struct QuotaRule {
    const char* name;  // in the log and on the wire
    const char* key;   // the user default, in the domain com.zandor.telvora, that changes the limit
    uint64_t limit;    // without it
};
const QuotaRule& ruleOf(Quota quota);

class UserQuotas;
struct UserShare;

// A part of one quota of one user, or nothing. Its end gives it back.
class QuotaCharge {
  public:
    QuotaCharge() = default;
    QuotaCharge(QuotaCharge&& other) noexcept { swap(other); }
    QuotaCharge& operator=(QuotaCharge&& other) noexcept;
    ~QuotaCharge() { resize(0); }

    // From now on it is this much. More than before is not refused: it counts against what comes next.
    void resize(uint64_t amount);
    // From now on it is a part of this quota; not refused either.
    void countAs(Quota quota);
    // Takes over another hold of the same user, as a part of this one's quota.
    void add(QuotaCharge other);

  private:
    friend class QuotaUser;
    void swap(QuotaCharge& other) noexcept;

    std::shared_ptr<UserShare> share_;
    Quota quota_{};
    uint64_t amount_ = 0;
};

// A user as the quotas know it, and one of its clients. A default-constructed one is nobody, to whom nothing
// is refused.
class QuotaUser {
  public:
    QuotaUser() = default;

    // Adds to a hold, which is empty or of this user and quota. False: the user would be over its quota; then
    // nothing has changed, and the refusal is counted and logged.
    bool take(Quota quota, uint64_t amount, QuotaCharge& hold) const;
    // For a LogScope: what is logged in it is on this client's behalf. Lives as long as any copy of this. The
    // lines of the user's other clients can use up the user's quota, but not the errors and warnings that
    // each client has besides.
    LogAdmission* logAdmission() const;

  private:
    friend class UserQuotas;
    explicit QuotaUser(std::shared_ptr<UserShare> share);

    std::shared_ptr<UserShare> share_;
    std::shared_ptr<LogAdmission> log_;
};

struct QuotaUse {
    uint64_t held = 0;
    uint64_t limit = 0;
    uint64_t refused = 0;  // how often, since the user was last forgotten
};

// Outlives every QuotaUser and QuotaCharge.
class UserQuotas {
  public:
    using SteadyClock = std::function<std::chrono::steady_clock::time_point()>;

    // `defaults` outlives this.
    explicit UserQuotas(UserDefaults& defaults, SteadyClock clock = std::chrono::steady_clock::now);
    ~UserQuotas();

    // For one client of the user. Reads the limits. May block on file I/O.
    QuotaUser of(uid_t user) TELVORA_EXCLUDES(lock_);
    // The users that are known, and their quotas in the order of Quota. Reads the limits, likewise.
    std::map<uid_t, std::array<QuotaUse, kQuotas>> uses() TELVORA_EXCLUDES(lock_);
    // Logs the refusals that the log has not been told of yet: for the daemon's end.
    void logRefusals() TELVORA_EXCLUDES(lock_);

  private:
    friend struct UserShare;
    void readLimits();
    uint64_t limitOf(Quota quota) const {
        return limits_[static_cast<size_t>(quota)].load(std::memory_order_relaxed);
    }

    UserDefaults& defaults_;
    const SteadyClock clock_;
    std::array<std::atomic<uint64_t>, kQuotas> limits_{};
    Mutex lock_{LockRank::users};
    std::map<uid_t, std::shared_ptr<UserShare>> users_ TELVORA_GUARDED_BY(lock_);
    std::chrono::steady_clock::time_point nextSweep_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
