// SPDX-License-Identifier: Apache-2.0
#include "config/storebag_service.h"

#include <utility>

namespace telvora {

void StorebagService::request(uint32_t clientType, Reply reply) {
    serve({clientType, std::move(reply), {}, false});
}

void StorebagService::refresh(std::function<void()> done) {
    std::vector<uint32_t> types;
    for (const StorebagCache::Status& bag : cache_.statuses()) {
        const auto type = static_cast<uint32_t>(bag.clientType);
        if (isBagFetchedFor(type)) types.push_back(type);
    }
    if (types.empty()) return done();
    const auto left = std::make_shared<std::atomic<size_t>>(types.size());
    for (const uint32_t type : types) {
        const auto fetched = [left, done](const Section&) {
            if (--*left == 0) done();
        };
        serve({type, fetched, {}, true});
    }
}

void StorebagService::serve(Waiting asked) {
    fetcher_.readSettings();
    std::optional<Section> cached;
    {
        const MutexLock lock(lock_);
        if (busy_) {
            waiting_.push_back(std::move(asked));
            return;
        }
        if (!asked.anew) cached = cache_.storebag(asked.clientType);
        if (!cached) busy_ = true;
    }
    if (cached) return asked.reply(std::move(*cached));
    fetch(asked.clientType, std::move(asked.reply));
}

bool StorebagService::isIdle(const std::function<void()>& resume) {
    if (!busy_) return true;
    const MutexLock lock(lock_);
    if (!busy_) return true;
    waiting_.push_back({0, {}, resume, false});
    return false;
}

std::optional<std::string> StorebagService::version(uint32_t clientType) {
    const MutexLock lock(lock_);
    return cache_.storebagVersion(clientType);
}

void StorebagService::fetch(uint32_t clientType, Reply reply) {
    std::optional<std::string> lastModified;
    {
        const MutexLock lock(lock_);
        lastModified = cache_.lastModified(clientType);
    }
    cache_.fetch(clientType, std::move(lastModified),
                 [this, clientType, reply = std::move(reply)](FetchedStorebag fetched) {
                     Section section;
                     {
                         const MutexLock lock(lock_);
                         section = cache_.store(clientType, std::move(fetched));
                     }
                     reply(std::move(section));
                     serveWaiting();
                 });
}

// Serves those who wait, up to one whose bag has to be fetched.
void StorebagService::serveWaiting() {
    while (auto next = takeWaiting()) {
        if (next->resume) {
            next->resume();
            continue;
        }
        std::optional<Section> cached;
        {
            const MutexLock lock(lock_);
            if (!next->anew) cached = cache_.storebag(next->clientType);
        }
        if (!cached) return fetch(next->clientType, std::move(next->reply));
        next->reply(std::move(*cached));
    }
}

std::optional<StorebagService::Waiting> StorebagService::takeWaiting() {
    const MutexLock lock(lock_);
    if (waiting_.empty()) {
        busy_ = false;
        return std::nullopt;
    }
    Waiting next = std::move(waiting_.front());
    waiting_.pop_front();
    return next;
}

}  // namespace telvora
