// SPDX-License-Identifier: Apache-2.0
#include "config/storebag_cache.h"

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

std::shared_ptr<const Dictionary> StorebagCache::storebag(uint32_t clientType) {
    const Key key(clientType);
    const auto found = cachedStorebags_.find(key);
    if (found != cachedStorebags_.end()) {
        const Record& record = found->second;
        const double recordAge = age(record.fetchTime);
        if (record.fetchSuccessful && recordAge < record.maxAge) {
            TELVORA_LOG(kLogDebug, "storebagForSession: Cached storebag found for client type %d",
                        static_cast<int>(clientType));
            return record.data;
        }
        if (!record.fetchSuccessful && recordAge < kSecondsBetweenAttempts) {
            TELVORA_LOG(
                kLogInfo,
                "storebagForSession: Not fetching storebag for client type %d - must wait %d seconds between attempts",
                static_cast<int>(clientType), kSecondsBetweenAttempts);
            return record.data;
        }
    }
    fetchAndCacheStorebag(clientType);
    return cachedStorebags_[key].data;
}

std::optional<std::string> StorebagCache::storebagVersion(uint32_t clientType) const {
    const auto found = cachedStorebags_.find(Key(clientType));
    return found != cachedStorebags_.end() ? found->second.version : std::nullopt;
}

void StorebagCache::fetchAndCacheStorebag(uint32_t clientType) {
    TELVORA_LOG(kLogDebug, "fetchAndCacheStorebag: Fetching storebag for client type %d",
                static_cast<int>(clientType));
    Record& record = cachedStorebags_[Key(clientType)];

    StorebagFetchStatus status;
    status.lastModified = record.lastModified;
    std::optional<std::string> version;
    std::optional<Dictionary> section =
        fetcher_.fetchStorebagForEnvironmentAndClientType(clientType, version, status);
    TELVORA_LOG(kLogDebug, "fetchAndCacheStorebag: Storebag max age: %d seconds", status.maxAge);

    const bool successful = section || status.notChanged;
    if (section) {
        record.data = std::make_shared<const Dictionary>(std::move(*section));
        record.version = std::move(version);
        record.builtIn = status.builtIn;
    } else if (!status.notChanged) {
        TELVORA_LOG(kLogError, "fetchAndCacheStorebag: Unable to fetch storebag for client type %d",
                    static_cast<int>(clientType));
    }
    record.fetchTime = TelvoradUtil::secondsFromTimeValue(clock_());
    record.fetchSuccessful = successful;
    record.maxAge = status.maxAge;
    if (status.lastModified) record.lastModified = std::move(status.lastModified);

    const MutexLock lock(extractsLock_);
    extracts_[Key(clientType)] = {static_cast<int>(clientType), record};
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
        statuses.push_back({key.name, extract.clientType, record.version, state, recordAge, record.maxAge});
    }
    return statuses;
}

}  // namespace telvora
