// SPDX-License-Identifier: Apache-2.0
#include "access/upload_admission.h"

#include <algorithm>

namespace telvora {

namespace {

void callAll(auto& ready) {
    for (auto& [admitted, ticket] : ready)
        admitted(std::move(ticket));
}

}  // namespace

void UploadAdmission::admit(uid_t user, uint64_t bytes, Admitted admitted) {
    Ready ready;
    {
        const MutexLock lock(mutex_);
        if (takePlace(user)) {
            auto queue = std::find_if(queues_.begin(), queues_.end(),
                                      [user](const Queue& one) { return one.user == user; });
            if (queue == queues_.end()) queue = queues_.insert(queue, Queue{user, {}});
            queue->uploads.push_back({bytes, std::move(admitted)});
            ready = takeReady();
        } else {
            ready.emplace_back(std::move(admitted), nullptr);
        }
    }
    callAll(ready);
}

// Counts an upload from here on, so that those that wait for memory are limited, too.
bool UploadAdmission::takePlace(uid_t user) {
    if (closed_ || total_.uploads >= limits_.uploads) return false;
    const auto share = byUser_.find(user);
    if (share != byUser_.end() && share->second.uploads >= limits_.uploads / 2) return false;
    ++total_.uploads;
    ++byUser_[user].uploads;
    return true;
}

// Gives memory to uploads that wait. A user whose share is full is passed over until it has room; the first
// other one whose upload does not fit ends the round, since smaller uploads could keep the memory short.
UploadAdmission::Ready UploadAdmission::takeReady() {
    const auto fits = [](const Load& load, uint64_t bytes, uint64_t limit) {
        return load.bytes == 0 || (load.bytes <= limit && bytes <= limit - load.bytes);
    };
    Ready ready;
    for (auto queue = queues_.begin(); queue != queues_.end();) {
        const uid_t user = queue->user;
        const uint64_t bytes = queue->uploads.front().bytes;
        Load& share = byUser_[user];
        if (!fits(share, bytes, limits_.bytes / 2)) {
            ++queue;
            continue;
        }
        if (!fits(total_, bytes, limits_.bytes)) break;
        total_.bytes += bytes;
        share.bytes += bytes;
        ready.emplace_back(std::move(queue->uploads.front().admitted),
                           std::make_unique<Ticket>(*this, user, bytes));
        queue->uploads.pop_front();
        if (queue->uploads.empty()) {
            queues_.erase(queue);
        } else {
            queues_.splice(queues_.end(), queues_, queue);
        }
        queue = queues_.begin();
    }
    return ready;
}

void UploadAdmission::release(uid_t user, uint64_t bytes, size_t uploads) {
    Ready ready;
    {
        const MutexLock lock(mutex_);
        const auto at = byUser_.find(user);
        for (Load* load : {&total_, &at->second}) {
            load->bytes -= bytes;
            load->uploads -= uploads;
        }
        if (at->second.uploads == 0) byUser_.erase(at);
        ready = takeReady();
    }
    callAll(ready);
}

void UploadAdmission::close() {
    std::list<Queue> refused;
    {
        const MutexLock lock(mutex_);
        closed_ = true;
        refused.swap(queues_);
    }
    for (Queue& queue : refused) {
        for (Waiting& upload : queue.uploads) {
            release(queue.user, 0, 1);
            upload.admitted(nullptr);
        }
    }
}

void UploadAdmission::Ticket::shrink(uint64_t bytes) {
    if (bytes >= bytes_) return;
    admission_.release(user_, bytes_ - bytes, 0);
    bytes_ = bytes;
}

}  // namespace telvora
