// SPDX-License-Identifier: Apache-2.0
//
// OutboxStore: the kept messages in a file, a SQLite database in WAL mode. Every change is durable on return,
// and a crash at any moment leaves the state before or after it. Deleted content is overwritten.
//
// The age of a message is that of the clock that runs through suspends (CLOCK_BOOTTIME) within one boot of
// the device, and of the time of day across boots. So a device without a real-time clock, whose time of day
// jumps by decades, neither loses its messages nor keeps them for ever.
//
// Belongs to one thread at a time. All operations block on file I/O.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "backends/message_outbox.h"
#include "outbox/sqlite.h"
#include "platform/moment.h"

namespace telvora {

struct OutboxLimits {
    uint64_t bytes = 0;  // of all messages; 0: no outbox
    std::chrono::seconds age{};
    uint64_t countPerUser = 0;
};

using OutboxMoment = Moment;

struct StoredMessage {
    int64_t id = 0;
    size_t reports = 0;
    bool isDamaged = false;  // the content is not what was stored
    HttpRequest request = {};
};

class OutboxStore {
  public:
    // Opens or makes the file. A damaged one is moved aside, to PATH.damaged, and replaced by an empty one
    // with a line at level 4. `vfs`: see SqliteDatabase::open(). Fails with a reason.
    static SqliteResult<OutboxStore> open(const std::filesystem::path& path, const OutboxLimits& limits,
                                          const OutboxMoment& now, const char* vfs = nullptr);
    // Moves the file aside, as open() does with a damaged one, and opens an empty one. No store may have it
    // open.
    static SqliteResult<OutboxStore> replace(const std::filesystem::path& path, const OutboxLimits& limits,
                                             const OutboxMoment& now, const char* vfs = nullptr);
    // Removes the file and all that belongs to it. Whether there was one.
    static bool removeFiles(const std::filesystem::path& path);

    // Adds all messages or none, in their order, and removes older ones as the limits demand: a user's oldest
    // beyond the count, and beyond the bytes the oldest of the user with the most bytes. Returns the number
    // of removed reports.
    SqliteResult<uint64_t> add(const std::vector<const OutboxMessage*>& messages, const OutboxMoment& now);
    // The bytes that a message counts for.
    static uint64_t sizeOf(const OutboxMessage& message);

    struct Head {
        std::string server;  // as serverOfUrl() names it
        int64_t id = 0;
    };
    // The oldest message for each server. Of a server in `after`, the oldest one behind that message.
    SqliteResult<std::vector<Head>> heads(const std::map<std::string, int64_t>& after = {});
    SqliteResult<StoredMessage> read(int64_t id);

    // Each removes messages and returns the number of their reports.
    SqliteResult<uint64_t> remove(int64_t id);
    SqliteResult<uint64_t> removeAllUnderConsent();
    SqliteResult<uint64_t> removeAllOfOtherIdentifiers(const std::string& identifier);
    SqliteResult<uint64_t> removeExpired(const OutboxMoment& now);

    struct Totals {
        uint64_t messages = 0;
        uint64_t reports = 0;
    };
    SqliteResult<Totals> totals();
    // Whether half of the bytes are used, or a user has half of the count.
    SqliteResult<bool> isHalfFull();

  private:
    OutboxStore(SqliteDatabase database, OutboxLimits limits)
        : database_(std::move(database)), limits_(limits) {}
    static SqliteResult<OutboxStore> openOnce(const std::string& path, const OutboxLimits& limits,
                                              const OutboxMoment& now, const char* vfs);
    SqliteResult<void> insert(const OutboxMessage& message, const OutboxMoment& now);
    SqliteResult<uint64_t> trim(const std::set<int64_t>& users);
    SqliteResult<uint64_t> erase(const char* statement, const std::vector<SqliteDatabase::Value>& values);
    SqliteResult<uint64_t> removeWhere(const char* statement,
                                       const std::vector<SqliteDatabase::Value>& values);

    SqliteDatabase database_;
    OutboxLimits limits_;
};

}  // namespace telvora
