// SPDX-License-Identifier: Apache-2.0
//
// OutgoingFeed: everything that leaves the device, for the administrators that watch it. The entries are
// described in com.zandor.telvorad.Status.xml.
//
// The feed keeps the newest entries for all watchers together. A watcher that reads too slowly finds its
// oldest entries dropped. A sender never waits for a watcher, and pays one atomic load while nobody watches.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "async/work_pool.h"
#include "plist/property_list.h"
#include "protocol/outgoing_interface.h"
#include "util/mutex.h"

namespace telvora {

// All operations are callable from any thread.
class OutgoingFeed {
  public:
    // Of the entries that are kept, approximately. The newest entry is kept whatever its size.
    static constexpr size_t kMaxBytes = size_t{2} << 20;

    // Whether entries are wanted.
    bool watched() const { return watchers_.load(std::memory_order_relaxed) != 0; }
    // A number for a new exchange.
    uint64_t nextExchange() { return exchanges_.fetch_add(1) + 1; }
    // Adds an entry, and the time to it. No effect if nobody watches.
    void add(Dictionary entry) TELVORA_EXCLUDES(lock_);

    // Begins to watch: returns the position after the last entry. Each join() needs its leave().
    uint64_t join() TELVORA_EXCLUDES(lock_);
    void leave() TELVORA_EXCLUDES(lock_);

    using Entry = std::shared_ptr<const Dictionary>;
    struct Batch {
        std::vector<Entry> entries;
        uint64_t lost = 0;
    };
    // Takes the entries from the position on, at most about kMaxBytes, and moves the position behind them. If
    // there are none, `wakeUp` runs once when the next entry has been added, on the sender's thread; it must
    // not block.
    Batch take(uint64_t& position, std::function<void()> wakeUp) TELVORA_EXCLUDES(lock_);

  private:
    struct Kept {
        Entry entry;
        size_t bytes;
    };

    std::atomic<size_t> watchers_{0};
    std::atomic<uint64_t> exchanges_{0};
    Mutex lock_;
    std::deque<Kept> kept_ TELVORA_GUARDED_BY(lock_);
    size_t bytes_ TELVORA_GUARDED_BY(lock_) = 0;
    uint64_t end_ TELVORA_GUARDED_BY(lock_) = 0;  // the position after the last entry
    std::vector<std::function<void()>> wakeUps_ TELVORA_GUARDED_BY(lock_);
};

// The watcher at one connection. Called on its strand.
class OutgoingWatcher final : public OutgoingInterface, public std::enable_shared_from_this<OutgoingWatcher> {
  public:
    // `feed` outlives the watcher.
    OutgoingWatcher(OutgoingFeed& feed, Strand strand) : feed_(feed), strand_(std::move(strand)) {}
    ~OutgoingWatcher() override { end(); }

    void next(std::function<void(Dictionary batch)> reply) override;
    // Stops watching, when the connection has ended.
    void end();

  private:
    void answer();

    OutgoingFeed& feed_;
    const Strand strand_;
    bool joined_ = false;
    uint64_t position_ = 0;
    std::function<void(Dictionary batch)> reply_;
};

}  // namespace telvora
