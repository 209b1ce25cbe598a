// SPDX-License-Identifier: Apache-2.0
#include "config/storebag_service.h"

#include <new>
#include <utility>

#include "util/log.h"

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
    const auto fetched = [left, done = std::move(done)](const Section&) {
        if (--*left == 0) done();
    };
    for (const uint32_t type : types)
        serve({type, fetched, {}, true});
}

void StorebagService::serve(Waiting asked) {
    fetcher_.readSettings();
    restore(asked.clientType);
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

// Takes over the record of an earlier process, if the cache has none.
void StorebagService::restore(uint32_t clientType) {
    const auto name = bagNameForClientType(clientType);
    if (kept_ == nullptr || !name) return;
    {
        const MutexLock lock(lock_);
        if (cache_.has(clientType)) return;
    }
    auto bag = kept_->load(*name, fetcher_.urlOf(name));
    if (!bag) return;
    FetchedStorebag reopened;
    if (!bag->document.empty()) reopened = fetcher_.reopen(std::move(bag->document), clientType);
    const MutexLock lock(lock_);
    if (!cache_.has(clientType)) cache_.restore(clientType, *bag, std::move(reopened));
}

// `document`: empty if the fetch had none; then the kept one stays.
void StorebagService::save(uint32_t clientType, std::string document) try {
    const auto name = bagNameForClientType(clientType);
    if (kept_ == nullptr || !name) return;
    std::optional<KeptBag> bag;
    {
        const MutexLock lock(lock_);
        bag = cache_.kept(clientType);
    }
    if (!bag) return;
    bag->url = fetcher_.urlOf(name);
    if (document.empty()) {
        if (auto before = kept_->load(*name, bag->url)) document = std::move(before->document);
    }
    bag->document = std::move(document);
    kept_->save(*name, *bag);
} catch (const std::bad_alloc&) {
    TELVORA_LOG(kLogError, "StorebagService: There is no memory to keep the bag of client type %u",
                clientType);
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
                     std::string document = std::move(fetched.status.document);
                     {
                         const MutexLock lock(lock_);
                         section = cache_.store(clientType, std::move(fetched));
                     }
                     save(clientType, std::move(document));
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
