// SPDX-License-Identifier: Apache-2.0
#include "access/upload_admission.h"

#include "async/work_pool.h"

namespace telvora {

std::unique_ptr<UploadAdmission::Ticket> UploadAdmission::admit(uid_t user, uint64_t bytes) {
    const BlockingSection blocking;
    const MutexLock lock(mutex_);
    if (closed_ || total_.uploads >= limits_.uploads) return nullptr;
    Load& share = byUser_[user];
    if (share.uploads >= limits_.uploads / 2) return nullptr;
    // Counted while it waits, so that waiting uploads are limited, too.
    ++total_.uploads;
    ++share.uploads;
    while (!closed_ && !hasMemoryFor(share, bytes))
        changed_.wait(mutex_);
    if (closed_) {
        --total_.uploads;
        --share.uploads;
        return nullptr;
    }
    total_.bytes += bytes;
    share.bytes += bytes;
    return std::make_unique<Ticket>(*this, user, bytes);
}

void UploadAdmission::close() {
    const MutexLock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

void UploadAdmission::Ticket::shrink(uint64_t bytes) {
    if (bytes >= bytes_) return;
    admission_.release(user_, bytes_ - bytes, 0);
    bytes_ = bytes;
}

bool UploadAdmission::hasMemoryFor(const Load& share, uint64_t bytes) const {
    const auto fits = [bytes](const Load& load, uint64_t limit) {
        return load.bytes == 0 || (load.bytes <= limit && bytes <= limit - load.bytes);
    };
    return fits(share, limits_.bytes / 2) && fits(total_, limits_.bytes);
}

void UploadAdmission::release(uid_t user, uint64_t bytes, size_t uploads) {
    const MutexLock lock(mutex_);
    const auto at = byUser_.find(user);
    for (Load* load : {&total_, &at->second}) {
        load->bytes -= bytes;
        load->uploads -= uploads;
    }
    if (at->second.uploads == 0) byUser_.erase(at);
    changed_.notify_all();
}

}  // namespace telvora
