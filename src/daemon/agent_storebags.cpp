// SPDX-License-Identifier: Apache-2.0
//
// The bag cache: a good bag is trusted for its age, a failing server is left alone for a while.
#include <cmath>

#include "daemon/telvorad_agent.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

// A bag server that failed is asked again only after this long.
constexpr int kSecondsBetweenAttempts = 900;

uint32_t clientTypeOf(const TelvoradSession& session) {
    return static_cast<uint32_t>(
        session.sessionInfo()->wrappedInteger(kTelvoraSessionInfoClientType).value_or(0));
}

}  // namespace

std::shared_ptr<const Dictionary> TelvoradAgent::storebagForSession(const TelvoradSession& session) {
    const uint32_t clientType = clientTypeOf(session);
    const StorebagKey key(clientType);
    TELVORA_LOG(kLogDebug, "storebagForSession: Retrieving storebag for session %u with client type %d",
                session.sessionID(), static_cast<int>(clientType));

    services_.storebagFetcher.readSettings();
    const DelegateLock lock(lock_);
    const auto found = cachedStorebags_.find(key);
    if (found != cachedStorebags_.end()) {
        const StorebagRecord& record = found->second;
        // A clock that was set back counts as time gone by.
        const double age =
            std::fabs(TelvoradUtil::secondsFromTimeValue(services_.clock()) - record.fetchTime);
        if (record.fetchSuccessful && age < record.maxAge) {
            TELVORA_LOG(kLogDebug, "storebagForSession: Cached storebag found for client type %d",
                        static_cast<int>(clientType));
            return record.data;
        }
        if (!record.fetchSuccessful && age < kSecondsBetweenAttempts) {
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

std::optional<std::string> TelvoradAgent::storebagVersionForSession(const TelvoradSession& session) {
    const DelegateLock lock(lock_);
    const auto found = cachedStorebags_.find(StorebagKey(clientTypeOf(session)));
    return found != cachedStorebags_.end() ? found->second.version : std::nullopt;
}

void TelvoradAgent::fetchAndCacheStorebag(uint32_t clientType) {
    TELVORA_LOG(kLogDebug, "fetchAndCacheStorebag: Fetching storebag for client type %d",
                static_cast<int>(clientType));
    StorebagRecord& record = cachedStorebags_[StorebagKey(clientType)];

    StorebagFetchStatus status;
    status.lastModified = record.lastModified;
    std::optional<std::string> version;
    std::optional<Dictionary> section =
        services_.storebagFetcher.fetchStorebagForEnvironmentAndClientType(clientType, version, status);
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
    record.fetchTime = TelvoradUtil::secondsFromTimeValue(services_.clock());
    record.fetchSuccessful = successful;
    record.maxAge = status.maxAge;
    if (status.lastModified) record.lastModified = std::move(status.lastModified);

    const MutexLock lock(storebagExtractsLock_);
    storebagExtracts_[StorebagKey(clientType)] = {
        static_cast<int>(clientType), record.version,         record.fetchTime, record.maxAge,
        record.fetchSuccessful,       record.data != nullptr, record.builtIn};
}

}  // namespace telvora
