// SPDX-License-Identifier: Apache-2.0
#include "outgoing/outgoing_feed.h"

#include <algorithm>
#include <asio/post.hpp>
#include <utility>

#include "util/time_value.h"

namespace telvora {

namespace {

constexpr size_t kEntryBytes = 2048;  // approximately, without the body

}  // namespace

void OutgoingFeed::add(Dictionary entry) {
    if (!watched()) return;
    entry.set(outgoing::kTime, Date{TelvoradUtil::secondsFromTimeValue(timeOfDay())});
    const PropertyList* body = entry.find(outgoing::kBody);
    const Data* data = body != nullptr ? body->getIf<Data>() : nullptr;
    const size_t bytes = kEntryBytes + (data != nullptr ? data->bytes.size() : 0);
    const auto shared = std::make_shared<const Dictionary>(std::move(entry));
    std::vector<std::function<void()>> wakeUps;
    {
        const MutexLock lock(lock_);
        kept_.push_back({shared, bytes});
        bytes_ += bytes;
        ++end_;
        while (bytes_ > kMaxBytes && kept_.size() > 1) {
            bytes_ -= kept_.front().bytes;
            kept_.pop_front();
        }
        wakeUps.swap(wakeUps_);
    }
    for (const auto& wakeUp : wakeUps)
        wakeUp();
}

uint64_t OutgoingFeed::join() {
    const MutexLock lock(lock_);
    ++watchers_;
    return end_;
}

void OutgoingFeed::leave() {
    const MutexLock lock(lock_);
    if (--watchers_ != 0) return;
    kept_.clear();
    bytes_ = 0;
}

OutgoingFeed::Batch OutgoingFeed::take(uint64_t& position, std::function<void()> wakeUp) {
    Batch batch;
    const MutexLock lock(lock_);
    const uint64_t first = end_ - kept_.size();
    batch.lost = first > position ? first - position : 0;
    for (uint64_t i = std::max(first, position); i < end_; ++i)
        batch.entries.push_back(kept_[i - first].entry);
    position = end_;
    if (batch.entries.empty()) wakeUps_.push_back(std::move(wakeUp));
    return batch;
}

void OutgoingWatcher::next(std::function<void(Dictionary batch)> reply) {
    if (const auto earlier = std::exchange(reply_, nullptr)) earlier({});
    if (joined_) {
        reply_ = std::move(reply);
        return answer();
    }
    position_ = feed_.join();
    joined_ = true;
    reply({});
}

void OutgoingWatcher::end() {
    reply_ = nullptr;
    if (std::exchange(joined_, false)) feed_.leave();
}

void OutgoingWatcher::answer() {
    if (!reply_) return;
    // The feed outlives the strand's pool, and so must not hold the strand.
    OutgoingFeed::Batch batch = feed_.take(position_, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self) asio::post(self->strand_, [self] { self->answer(); });
    });
    if (batch.entries.empty()) return;
    Array entries;
    for (const OutgoingFeed::Entry& entry : batch.entries)
        entries.emplace_back(*entry);
    std::exchange(reply_, nullptr)(
        {{outgoing::kEntries, std::move(entries)}, {outgoing::kLost, static_cast<long long>(batch.lost)}});
}

}  // namespace telvora
