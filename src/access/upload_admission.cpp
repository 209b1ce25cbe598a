// SPDX-License-Identifier: Apache-2.0
#include "access/upload_admission.h"

#include <utility>
#include <vector>

namespace telvora {

void UploadAdmission::admit(uid_t user, uint64_t bytes, Admitted admitted) {
    std::unique_ptr<Ticket> ticket;
    {
        const MutexLock lock(mutex_);
        if (takePlace(user)) {
            if (!takeMemory(user, bytes)) {
                waiting_.push_back({user, bytes, std::move(admitted)});
                return;
            }
            ticket = std::make_unique<Ticket>(*this, user, bytes);
        }
    }
    admitted(std::move(ticket));
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

bool UploadAdmission::takeMemory(uid_t user, uint64_t bytes) {
    const auto fits = [bytes](const Load& load, uint64_t limit) {
        return load.bytes == 0 || (load.bytes <= limit && bytes <= limit - load.bytes);
    };
    Load& share = byUser_[user];
    if (!fits(share, limits_.bytes / 2) || !fits(total_, limits_.bytes)) return false;
    total_.bytes += bytes;
    share.bytes += bytes;
    return true;
}

void UploadAdmission::release(uid_t user, uint64_t bytes, size_t uploads) {
    std::vector<std::pair<Admitted, std::unique_ptr<Ticket>>> admitted;
    {
        const MutexLock lock(mutex_);
        const auto at = byUser_.find(user);
        for (Load* load : {&total_, &at->second}) {
            load->bytes -= bytes;
            load->uploads -= uploads;
        }
        if (at->second.uploads == 0) byUser_.erase(at);
        std::erase_if(waiting_, [&](Waiting& next) TELVORA_REQUIRES(mutex_) {
            if (!takeMemory(next.user, next.bytes)) return false;
            admitted.emplace_back(std::move(next.admitted),
                                  std::make_unique<Ticket>(*this, next.user, next.bytes));
            return true;
        });
    }
    for (auto& [call, ticket] : admitted)
        call(std::move(ticket));
}

void UploadAdmission::close() {
    std::deque<Waiting> refused;
    {
        const MutexLock lock(mutex_);
        closed_ = true;
        refused.swap(waiting_);
    }
    for (Waiting& one : refused) {
        release(one.user, 0, 1);
        one.admitted(nullptr);
    }
}

void UploadAdmission::Ticket::shrink(uint64_t bytes) {
    if (bytes >= bytes_) return;
    admission_.release(user_, bytes_ - bytes, 0);
    bytes_ = bytes;
}

}  // namespace telvora
