// SPDX-License-Identifier: Apache-2.0
#include "config/storebag_cache.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "util/log.h"

namespace telvora {

namespace {

constexpr int kSecondsBetweenAttempts = 900;

}  // namespace

// The clock may be set back: that counts as time gone by.
double StorebagCache::age(double fetchTime) const {
    return std::fabs(TelvoradUtil::secondsFromTimeValue(clock_()) - fetchTime);
}

const StorebagCache::Record* StorebagCache::find(uint32_t clientType) const {
    const auto found = cachedStorebags_.find(Key(clientType));
    return found != cachedStorebags_.end() ? &found->second : nullptr;
}

std::optional<StorebagCache::Section> StorebagCache::storebag(uint32_t clientType) const {
    const Record* record = find(clientType);
    if (record == nullptr) return std::nullopt;
    const double recordAge = age(record->fetchTime);
    if (record->fetchSuccessful && recordAge < record->maxAge) {
        TELVORA_LOG(kLogDebug, "storebagForSession: Cached storebag found for client type %d",
                    static_cast<int>(clientType));
        return record->data;
    }
    if (!record->fetchSuccessful && recordAge < kSecondsBetweenAttempts) {
        TELVORA_LOG(
            kLogInfo,
            "storebagForSession: Not fetching storebag for client type %d - must wait %d seconds between attempts",
            static_cast<int>(clientType), kSecondsBetweenAttempts);
        return record->data;
    }
    return std::nullopt;
}

std::optional<std::string> StorebagCache::storebagVersion(uint32_t clientType) const {
    const Record* record = find(clientType);
    return record != nullptr ? record->version : std::nullopt;
}

std::optional<std::string> StorebagCache::lastModified(uint32_t clientType) const {
    const Record* record = find(clientType);
    return record != nullptr ? record->lastModified : std::nullopt;
}

void StorebagCache::fetch(uint32_t clientType, std::optional<std::string> lastModified,
                          StorebagFetcher::Completion done) const {
    TELVORA_LOG(kLogDebug, "fetchAndCacheStorebag: Fetching storebag for client type %d",
                static_cast<int>(clientType));
    fetcher_.fetchStorebagForEnvironmentAndClientType(clientType, {.lastModified = std::move(lastModified)},
                                                      std::move(done));
}

StorebagCache::Section StorebagCache::store(uint32_t clientType, FetchedStorebag fetched) {
    StorebagFetchStatus& status = fetched.status;
    TELVORA_LOG(kLogDebug, "fetchAndCacheStorebag: Storebag max age: %d seconds", status.maxAge);
    if (status.noMemory) {  // the next session fetches it again
        const Record* const record = find(clientType);
        return record != nullptr ? record->data : nullptr;
    }
    // The record changes as a whole.
    Record record = cachedStorebags_[Key(clientType)];
    record.fetchSuccessful = fetched.section || status.notChanged;
    if (fetched.section) {
        record.data = std::make_shared<const Dictionary>(std::move(*fetched.section));
        record.version = std::move(fetched.version);
        record.builtIn = status.builtIn;
    } else if (!status.notChanged) {
        TELVORA_LOG(kLogError, "fetchAndCacheStorebag: Unable to fetch storebag for client type %d",
                    static_cast<int>(clientType));
    }
    record.fetchTime = TelvoradUtil::secondsFromTimeValue(clock_());
    record.maxAge = status.maxAge;
    record.fetch = std::move(status.report);
    if (status.lastModified) record.lastModified = std::move(status.lastModified);

    extract(clientType, record);
    Record& known = cachedStorebags_[Key(clientType)];
    known = std::move(record);
    return known.data;
}

void StorebagCache::extract(uint32_t clientType, const Record& record) {
    const MutexLock lock(extractsLock_);
    extracts_[Key(clientType)] = {static_cast<int>(clientType), record};
}

void StorebagCache::restore(uint32_t clientType, const KeptBag& kept, FetchedStorebag reopened) {
    Record& record = cachedStorebags_[Key(clientType)];
    if (reopened.section) {
        record.data = std::make_shared<const Dictionary>(std::move(*reopened.section));
        record.version = std::move(reopened.version);
        record.lastModified = kept.lastModified;
    }
    record.fetchTime = kept.fetchTime;
    record.maxAge = kept.maxAge;
    record.fetch.url = kept.url;
    // A bag whose signature is no longer valid has to be fetched: the wait is for failed fetches.
    record.fetchSuccessful = kept.fetchSuccessful && record.data;
    if (kept.fetchSuccessful && !record.data) record.fetchTime = 0;
    extract(clientType, record);
}

std::optional<KeptBag> StorebagCache::kept(uint32_t clientType) const {
    const Record* record = find(clientType);
    if (record == nullptr || record->builtIn) return std::nullopt;
    return KeptBag{.lastModified = record->lastModified,
                   .fetchTime = record->fetchTime,
                   .maxAge = record->maxAge,
                   .fetchSuccessful = record->fetchSuccessful};
}

std::vector<StorebagCache::Status> StorebagCache::statuses() const {
    using State = Status::State;
    std::vector<Status> statuses;
    const MutexLock lock(extractsLock_);
    for (const auto& [key, extract] : extracts_) {
        const Record& record = extract.record;
        const double recordAge = age(record.fetchTime);
        const State state = record.builtIn                                        ? State::builtIn
                            : !record.data                                        ? State::absent
                            : record.fetchSuccessful && recordAge < record.maxAge ? State::fresh
                                                                                  : State::stale;
        const double lifetime = record.fetchSuccessful ? record.maxAge : kSecondsBetweenAttempts;
        statuses.push_back({.name = key.name,
                            .clientType = extract.clientType,
                            .version = record.version,
                            .state = state,
                            .age = recordAge,
                            .maxAge = record.maxAge,
                            .fetched = record.fetchSuccessful,
                            .fetchTime = record.fetchTime,
                            .untilNextFetch = std::max(lifetime - recordAge, 0.0),
                            .fetch = record.fetch});
    }
    return statuses;
}

}  // namespace telvora
