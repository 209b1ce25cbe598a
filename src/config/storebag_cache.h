// SPDX-License-Identifier: Apache-2.0
//
// StorebagCache: one record per bag name. A good bag is served for its maximum age. After a failed fetch the
// server is not asked for 15 minutes, and the last good bag is served.
//
// A lock of the owner guards the cache, except for fetch() and statuses(). The owner lets one fetch run at a
// time, so that sessions that wait for the same bag find it fetched.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config/kept_bags.h"
#include "config/storebag_fetcher.h"
#include "plist/property_list.h"
#include "util/mutex.h"
#include "util/time_value.h"

namespace telvora {

class StorebagCache {
  public:
    // A record as administrators see it.
    struct Status {
        enum class State { absent, builtIn, fresh, stale };
        std::optional<std::string> name;  // of the bag
        int clientType = 0;               // of the session that it was last fetched for
        std::optional<std::string> version;
        State state = State::absent;
        double age = 0;             // seconds since the last attempt
        int32_t maxAge = 0;         // seconds
        bool fetched = false;       // the last attempt succeeded
        double fetchTime = 0;       // of the last attempt, seconds since 1970
        double untilNextFetch = 0;  // seconds until a session's request causes the next attempt
        StorebagFetchReport fetch;  // the last attempt
    };

    // `fetcher` must outlive the cache.
    StorebagCache(const StorebagFetcher& fetcher, Clock clock)
        : fetcher_(fetcher), clock_(std::move(clock)) {}

    // The environment's section of a bag; null if no fetch of the bag has succeeded yet.
    using Section = std::shared_ptr<const Dictionary>;

    // The client type's section, or std::nullopt if the bag has to be fetched.
    std::optional<Section> storebag(uint32_t clientType) const;
    // The version of the client type's bag; std::nullopt if there is none.
    std::optional<std::string> storebagVersion(uint32_t clientType) const;
    // The date of the client type's bag, for fetch().
    std::optional<std::string> lastModified(uint32_t clientType) const;
    // Fetches the bag, and calls `done` once with what store() takes. Needs no lock.
    void fetch(uint32_t clientType, std::optional<std::string> lastModified,
               StorebagFetcher::Completion done) const;
    // Records the outcome of a fetch. Returns the section that is valid now.
    Section store(uint32_t clientType, FetchedStorebag fetched);

    // Whether there is a record of the client type's bag.
    bool has(uint32_t clientType) const { return find(clientType) != nullptr; }
    // Makes the record of an earlier process, whose last good bag is `reopened`.
    void restore(uint32_t clientType, const KeptBag& kept, FetchedStorebag reopened);
    // The record for a later process, without its document; std::nullopt if its bag is built in.
    std::optional<KeptBag> kept(uint32_t clientType) const;

    // The records in the order of their names. Callable from any thread; waits for no fetch.
    std::vector<Status> statuses() const TELVORA_EXCLUDES(extractsLock_);

  private:
    // Client types of one bag name share a record. Those without a name share the bag of no name, except type
    // 0, for which no bag is ever fetched: its failures must not block the others.
    struct Key {
        explicit Key(uint32_t clientType)
            : name(bagNameForClientType(clientType)), isFetched(isBagFetchedFor(clientType)) {}
        friend auto operator<=>(const Key&, const Key&) = default;

        std::optional<std::string> name;
        bool isFetched;
    };

    struct Record {
        Section data;
        std::optional<std::string> version;
        std::optional<std::string> lastModified;
        double fetchTime = 0;  // of the last attempt, seconds since 1970
        int32_t maxAge = 0;    // seconds
        bool fetchSuccessful = false;
        bool builtIn = false;  // the data are the built-in stand-in
        StorebagFetchReport fetch;
    };

    // A copy of a record for statuses(), and the client type that it was last fetched for.
    struct Extract {
        int clientType = 0;
        Record record;
    };

    double age(double fetchTime) const;
    void extract(uint32_t clientType, const Record& record) TELVORA_EXCLUDES(extractsLock_);
    const Record* find(uint32_t clientType) const;

    const StorebagFetcher& fetcher_;
    const Clock clock_;
    std::map<Key, Record> cachedStorebags_;
    mutable Mutex extractsLock_;
    std::map<Key, Extract> extracts_ TELVORA_GUARDED_BY(extractsLock_);
};

}  // namespace telvora
