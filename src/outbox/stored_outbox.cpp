// SPDX-License-Identifier: Apache-2.0
#include "outbox/stored_outbox.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "async/work_pool.h"
#include "http/http_request_rules.h"
#include "http/retry_after.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr double kFirstPause = 15;  // seconds, the most after the first failure
constexpr double kLongestPause = 3600;
constexpr double kShortestPause = 1;
constexpr std::chrono::seconds kPauseAfterFailure{15};
constexpr std::chrono::seconds kExpiryInterval{60};
constexpr std::chrono::hours kSparingInterval{1};  // between looks for messages that may no longer leave
constexpr std::chrono::nanoseconds kLeeway = std::chrono::milliseconds(10);
constexpr std::chrono::nanoseconds kLongestRest = std::chrono::minutes(1);

}  // namespace

SqliteResult<std::unique_ptr<StoredOutbox>> StoredOutbox::open(const std::filesystem::path& path,
                                                               const OutboxLimits& limits,
                                                               OutboxServices services, const char* vfs) {
    auto store = OutboxStore::open(path, limits, services.moment(), vfs);
    if (!store) return tl::unexpected(store.error());
    const auto totals = store->totals();
    if (!totals) return tl::unexpected(totals.error());
    std::unique_ptr<StoredOutbox> outbox(
        new StoredOutbox(std::move(*store), path, limits, std::move(services), vfs));
    outbox->account_->accept(ReportOutcome::held, totals->reports);
    outbox->waiting_ = totals->messages;
    if (totals->messages > 0) {
        TELVORA_LOG(kLogInfo, "StoredOutbox(open): %llu messages wait for their servers",
                    static_cast<unsigned long long>(totals->messages));
    }
    outbox->services_.queue->post([self = outbox.get()] { self->wake(); });
    return outbox;
}

StoredOutbox::StoredOutbox(OutboxStore store, std::filesystem::path path, const OutboxLimits& limits,
                           OutboxServices services, const char* vfs)
    : path_(std::move(path)),
      limits_(limits),
      services_(std::move(services)),
      vfs_(vfs),
      account_(services_.ledger.open(kAccount)),
      sparesLink_(services_.sparesLink),
      store_(std::move(store)),
      timer_(services_.queue->makeTimer()) {}

void StoredOutbox::keep(OutboxMessage message, const HttpResult* result, std::function<void(bool)> done) {
    const uint64_t size = OutboxStore::sizeOf(message);
    if (size > limits_.bytes) {
        if (result == nullptr) return done(false);
        account_->accept(ReportOutcome::oversized, message.reports);
        return done(true);
    }
    std::optional<std::chrono::seconds> patience;
    if (result != nullptr) patience = retryAfter(*result, services_.moment().timeOfDay);
    {
        const MutexLock lock(incomingLock_);
        if (!closed_ && incomingBytes_ + size <= limits_.bytes) {
            incomingBytes_ += size;
            ++waiting_;
            ++storing_;
            incoming_.push_back({std::move(message), std::exchange(done, nullptr), patience});
        }
    }
    if (done) return done(false);
    services_.queue->post([this] { wake(); });
}

void StoredOutbox::setSparesLink(bool spares) {
    sparesLink_ = spares;
    if (!spares) services_.queue->post([this] { wake(); });
}

void StoredOutbox::reached(const std::string& url) {
    if (postponedServers_.load(std::memory_order_relaxed) == 0) return;
    services_.queue->post([this, server = serverOfUrl(url)] {
        if (servers_.erase(server) == 0) return;
        postponedServers_ = servers_.size();
        wake();
    });
}

void StoredOutbox::close() {
    maySend_ = false;
    {
        const MutexLock lock(incomingLock_);
        closed_ = true;
    }
    storeIncoming();
    removeSettled();
    store_.reset();
}

void StoredOutbox::wake() {
    if (!store_ && maySend_) reopen();
    storeIncoming();
    sendNext();
}

void StoredOutbox::storeIncoming() {
    std::vector<Incoming> incoming;
    {
        const MutexLock lock(incomingLock_);
        incoming.swap(incoming_);
        incomingBytes_ = 0;
    }
    if (incoming.empty()) return;
    std::vector<const OutboxMessage*> messages;
    messages.reserve(incoming.size());
    for (const Incoming& one : incoming)
        messages.push_back(&one.message);
    const BlockingSection blocking;
    const bool stored = store_ && storeAll(messages);
    for (Incoming& one : incoming) {
        const std::string server = serverOfUrl(one.message.request.url);
        const auto known = servers_.find(server);
        if (one.patience && (known == servers_.end() || known->second.due <= services_.queue->now()))
            postpone(server, *one.patience);
        one.done(stored);
    }
    checked_.reset();
    countWaiting();
    storing_ -= incoming.size();
    if (!maySend_ && services_.stored) services_.stored();
}

bool StoredOutbox::storeAll(const std::vector<const OutboxMessage*>& messages) {
    const auto removed = store_->add(messages, services_.moment());
    if (!removed) {
        fail(removed.error());
        return false;
    }
    for (const OutboxMessage* message : messages)
        account_->accept(ReportOutcome::held, message->reports);
    account_->move(*removed, ReportOutcome::held, ReportOutcome::outboxFull);
    failureLogged_ = false;
    return true;
}

void StoredOutbox::sendNext() {
    if (waiting_.load() == 0) halfFull_ = false;
    if (sending_ || !store_ || !maySend_ || waiting_.load() == 0) return;
    const BlockingSection blocking;
    removeSettled();
    if (!store_ || !removeUnwanted()) return;
    if (sparesLink_) {
        const auto half = store_->isHalfFull();
        if (!half) return fail(half.error());
        halfFull_ = *half;
        if (!*half) return wakeAt(services_.queue->now() + kSparingInterval);
    }
    std::map<std::string, int64_t> settled;
    for (const auto& [id, message] : settled_)
        settled[message.server] = id;
    const auto heads = store_->heads(settled);
    if (!heads) return fail(heads.error());
    std::erase_if(servers_, [&heads](const auto& server) {
        return std::none_of(heads->begin(), heads->end(),
                            [&](const auto& head) { return head.server == server.first; });
    });
    postponedServers_ = servers_.size();
    const SteadyTime now = services_.queue->now();
    const OutboxStore::Head* next = nullptr;
    std::optional<SteadyTime> earliest;
    for (const OutboxStore::Head& head : *heads) {
        const auto server = servers_.find(head.server);
        if (server == servers_.end() || server->second.due <= now) {
            if (next == nullptr || head.id < next->id) next = &head;
        } else if (!earliest || server->second.due < *earliest) {
            earliest = server->second.due;
        }
    }
    if (next != nullptr) return send(*next);
    if (earliest) wakeAt(*earliest);
}

// Removes what may no longer leave, if that can have changed. False after a failure.
bool StoredOutbox::removeUnwanted() {
    Checked current{services_.consent(), services_.identifier(), services_.queue->now()};
    if (checked_ && checked_->consent == current.consent && checked_->identifier == current.identifier &&
        current.time - checked_->time < kExpiryInterval)
        return true;
    if (!current.consent && !lose(store_->removeAllUnderConsent(), ReportOutcome::consentWithdrawn))
        return false;
    if (!lose(store_->removeAllOfOtherIdentifiers(current.identifier), ReportOutcome::identifiersReset) ||
        !lose(store_->removeExpired(services_.moment()), ReportOutcome::expired))
        return false;
    checked_ = std::move(current);
    countWaiting();
    return true;
}

// Removes the messages that have an outcome. On a full disk, they stay until there is room, or until all
// messages have an outcome, so that the file can be removed.
void StoredOutbox::removeSettled() {
    while (store_ && !settled_.empty()) {
        const auto& [id, settled] = *settled_.begin();
        const auto removed = store_->remove(id);
        if (!removed) {
            fail(removed.error());
            const auto totals = store_ ? store_->totals() : OutboxStore::Totals{};
            if (totals && totals->messages == settled_.size()) removeFile();
            return;
        }
        account_->move(*removed, ReportOutcome::held, settled.outcome);
        if (*removed > 0) --waiting_;
        settled_.erase(id);
    }
}

bool StoredOutbox::lose(const SqliteResult<uint64_t>& removed, ReportOutcome cause) {
    if (!removed) {
        fail(removed.error());
        return false;
    }
    account_->move(*removed, ReportOutcome::held, cause);
    return true;
}

void StoredOutbox::send(const OutboxStore::Head& head) {
    auto message = store_->read(head.id);
    if (!message) return fail(message.error());
    if (message->isDamaged) {
        settle(head, message->reports, ReportOutcome::damaged);
        return services_.queue->post([this] { sendNext(); });
    }
    sending_ = true;
    const auto request = std::make_shared<const HttpRequest>(message->request);
    const SteadyTime begun = services_.queue->now();
    services_.http.start(std::move(message->request), [this, head, reports = message->reports, request, begun,
                                                       replaced = replaced_](HttpResult result) {
        services_.queue->post([this, head, reports, request, begun, replaced, result = std::move(result)] {
            sending_ = false;
            // A message of a file that was replaced meanwhile has had its outcome.
            if (replaced == replaced_) finished(head, reports, *request, result);
            const SteadyTime now = services_.queue->now();
            wakeAt(now + std::min<std::chrono::nanoseconds>(now - begun, kLongestRest));
        });
    });
}

void StoredOutbox::finished(const OutboxStore::Head& head, uint64_t reports, const HttpRequest& request,
                            const HttpResult& result) {
    if (mayBePostedLater(request, result))
        return postpone(head.server, retryAfter(result, services_.moment().timeOfDay));
    servers_.erase(head.server);
    postponedServers_ = servers_.size();
    settle(head, reports, outcomeOf(result));
}

void StoredOutbox::postpone(const std::string& server, std::chrono::seconds patience) {
    Server& postponed = servers_[server];
    const double most = std::min(kLongestPause, kFirstPause * std::exp2(std::min(postponed.failures, 16U)));
    ++postponed.failures;
    const double seconds =
        std::max({kShortestPause, services_.random() * most, static_cast<double>(patience.count())});
    postponed.due = services_.queue->now() +
                    std::chrono::duration_cast<SteadyTime::duration>(std::chrono::duration<double>(seconds));
    postponedServers_ = servers_.size();
    TELVORA_LOG(kLogDebug, "StoredOutbox(postpone): %s gets no message for %.0f s", server.c_str(), seconds);
}

void StoredOutbox::settle(const OutboxStore::Head& head, uint64_t reports, ReportOutcome outcome) {
    const BlockingSection blocking;
    settled_.emplace(head.id, Settled{head.server, reports, outcome});
    removeSettled();
}

void StoredOutbox::wakeAt(SteadyTime time) {
    if (timer_) timer_->arm(time, kLeeway, [this] { wake(); });
}

// A damaged file is replaced; its messages are lost. Other failures, such as a full disk, may end.
void StoredOutbox::fail(const SqliteError& error) {
    if (!std::exchange(failureLogged_, true))
        TELVORA_LOG(kLogError, "StoredOutbox: %s: %s", path_.c_str(), error.text.c_str());
    wakeAt(services_.queue->now() + kPauseAfterFailure);
    if (error.isDamaged) replaceDamaged();
}

void StoredOutbox::replaceDamaged() {
    store_.reset();
    ++replaced_;  // the new file numbers its messages anew
    countSettled();
    account_->move(account_->tally()[ReportOutcome::held], ReportOutcome::held, ReportOutcome::damaged);
    auto store = OutboxStore::replace(path_, limits_, services_.moment(), vfs_);
    if (store) store_ = std::move(*store);
    countWaiting();
}

// Begins a new file in the place of one whose messages all have an outcome. If the old one can't be removed,
// its messages stay known as settled.
void StoredOutbox::removeFile() {
    store_.reset();
    OutboxStore::removeFiles(path_);
    reopen();
}

void StoredOutbox::reopen() {
    const BlockingSection blocking;
    auto store = OutboxStore::open(path_, limits_, services_.moment(), vfs_);
    if (!store) return wakeAt(services_.queue->now() + kPauseAfterFailure);
    store_ = std::move(*store);
    const auto totals = store_->totals();
    if (totals && totals->messages == 0) countSettled();
    countWaiting();
}

void StoredOutbox::countSettled() {
    for (const auto& [id, settled] : settled_)
        account_->move(settled.reports, ReportOutcome::held, settled.outcome);
    settled_.clear();
}

void StoredOutbox::countWaiting() {
    const auto totals = store_ ? store_->totals() : OutboxStore::Totals{};
    const MutexLock lock(incomingLock_);
    if (totals) waiting_ = totals->messages + incoming_.size();
}

}  // namespace telvora
