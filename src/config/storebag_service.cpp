// SPDX-License-Identifier: Apache-2.0
#include "config/storebag_service.h"

#include <new>
#include <utility>

#include "util/attempt.h"
#include "util/log.h"

namespace telvora {

// The time from the start of a fetch to its end, while which others wait. It also ends with the last
// reference: a fetch that there is no memory for has no other end.
class StorebagService::Turn {
  public:
    explicit Turn(StorebagService& service) : service_(service) {}
    ~Turn() { end(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    void end() {
        if (take()) service_.serveWaiting();
    }
    // True if the caller is to serve those who wait.
    bool take() { return !ended_.exchange(true); }

  private:
    StorebagService& service_;
    std::atomic<bool> ended_{false};
};

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
    if (!fetch(asked.clientType, std::move(asked.reply))) serveWaiting();
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

// False if there is no memory for the fetch: the caller serves those who wait.
bool StorebagService::fetch(uint32_t clientType, Reply reply) {
    std::shared_ptr<Turn> turn;
    const bool begun = attempt("StorebagService", [&] {
        Reply unanswered = std::move(reply);  // which an exception destroys
        turn = std::make_shared<Turn>(*this);
        std::optional<std::string> lastModified;
        {
            const MutexLock lock(lock_);
            lastModified = cache_.lastModified(clientType);
        }
        cache_.fetch(clientType, std::move(lastModified),
                     [this, turn, clientType, reply = std::move(unanswered)](FetchedStorebag fetched) {
                         finish(clientType, std::move(fetched), reply);
                         turn->end();
                     });
    });
    return begun || (turn && !turn->take());
}

void StorebagService::finish(uint32_t clientType, FetchedStorebag fetched, const Reply& reply) {
    Section section;
    std::string document = std::move(fetched.status.document);
    {
        const MutexLock lock(lock_);
        section = cache_.store(clientType, std::move(fetched));
    }
    save(clientType, std::move(document));
    reply(std::move(section));
}

// Serves those who wait, up to one whose bag has to be fetched.
void StorebagService::serveWaiting() noexcept {
    bool goesOn = true;
    while (goesOn) {
        auto next = takeWaiting();
        if (!next) return;
        attempt("StorebagService", [&] { goesOn = serveNext(std::move(*next)); });
    }
}

// False if a fetch has begun.
bool StorebagService::serveNext(Waiting next) {
    if (next.resume) {
        next.resume();
        return true;
    }
    std::optional<Section> cached;
    {
        const MutexLock lock(lock_);
        if (!next.anew) cached = cache_.storebag(next.clientType);
    }
    if (!cached) return !fetch(next.clientType, std::move(next.reply));
    next.reply(std::move(*cached));
    return true;
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
