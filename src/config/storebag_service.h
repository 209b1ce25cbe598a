// SPDX-License-Identifier: Apache-2.0
//
// StorebagService: gives sessions their bags. It lets one fetch run at a time. Requests that come during a
// fetch wait in order, and find the bag in the cache if it was theirs. No thread waits: a request that waits
// is a completion in a queue.
//
// All operations are callable from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/storebag_cache.h"
#include "util/mutex.h"

namespace telvora {

class StorebagService {
  public:
    using Section = StorebagCache::Section;
    using Reply = std::function<void(Section section)>;

    // `fetcher` outlives the service, which outlives its fetches. `kept` likewise, if bags are kept for later
    // processes; else it is null.
    StorebagService(const StorebagFetcher& fetcher, Clock clock, const KeptBags* kept = nullptr)
        : fetcher_(fetcher), kept_(kept), cache_(fetcher, std::move(clock)) {}

    // Calls `reply` once, with the environment's section of the client type's bag, or null if no fetch of the
    // bag has succeeded yet: before it returns, or later on the thread of StorebagFetcherServices::perform.
    void request(uint32_t clientType, Reply reply) TELVORA_EXCLUDES(lock_);
    // Fetches each bag of the cache that was fetched before, whatever its age. Calls `done` once when all
    // fetches are through: before it returns, or later like a reply.
    void refresh(std::function<void()> done) TELVORA_EXCLUDES(lock_);
    // True if no fetch runs. If one runs, calls `resume` once when the fetch and all earlier requests are
    // through, on any thread.
    bool isIdle(const std::function<void()>& resume) TELVORA_EXCLUDES(lock_);
    // The version of the bag that was found last; std::nullopt if there is none.
    std::optional<std::string> version(uint32_t clientType) TELVORA_EXCLUDES(lock_);
    // The bags in the order of their names.
    std::vector<StorebagCache::Status> statuses() const { return cache_.statuses(); }

  private:
    // A request, or a caller of isIdle().
    struct Waiting {
        uint32_t clientType = 0;
        Reply reply;
        std::function<void()> resume;  // empty for a request
        bool anew = false;             // whatever the cache has
    };

    void serve(Waiting asked) TELVORA_EXCLUDES(lock_);
    void restore(uint32_t clientType) TELVORA_EXCLUDES(lock_);
    void save(uint32_t clientType, std::string document) TELVORA_EXCLUDES(lock_);
    class Turn;
    bool fetch(uint32_t clientType, Reply reply) TELVORA_EXCLUDES(lock_);
    void finish(uint32_t clientType, FetchedStorebag fetched, const Reply& reply) TELVORA_EXCLUDES(lock_);
    void serveWaiting() noexcept TELVORA_EXCLUDES(lock_);
    bool serveNext(Waiting next) TELVORA_EXCLUDES(lock_);
    std::optional<Waiting> takeWaiting() TELVORA_EXCLUDES(lock_);

    const StorebagFetcher& fetcher_;
    const KeptBags* const kept_;
    Mutex lock_{LockRank::agent};
    StorebagCache cache_;  // reached under lock_, except for fetch() and statuses()
    std::deque<Waiting> waiting_ TELVORA_GUARDED_BY(lock_);
    // Set from the start of a fetch until all who waited have been served.
    std::atomic<bool> busy_{false};
};

}  // namespace telvora
