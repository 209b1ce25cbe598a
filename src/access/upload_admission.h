// SPDX-License-Identifier: Apache-2.0
//
// UploadAdmission: how many uploads may be under way at once, and how much memory they may take. A file is in
// memory whole, and its compressed form besides; a server may take long to answer. So each user has a share,
// which leaves room for the others whatever becomes of that user's uploads.
//
// All operations may be called from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "util/mutex.h"

namespace telvora {

struct UploadLimits {
    size_t uploads = 64;                 // under way or waiting for memory; each holds a thread
    uint64_t bytes = uint64_t{1} << 30;  // of files and their compressed forms
};

class UploadAdmission {
  public:
    explicit UploadAdmission(UploadLimits limits = {}) : limits_(limits) {}

    // One upload's place; its destruction makes room. The admission outlives it.
    class Ticket {
      public:
        Ticket(UploadAdmission& admission, uid_t user, uint64_t bytes)
            : admission_(admission), user_(user), bytes_(bytes) {}
        ~Ticket() { admission_.release(user_, bytes_, 1); }
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

        // Fewer bytes are needed from now on.
        void shrink(uint64_t bytes);

      private:
        UploadAdmission& admission_;
        const uid_t user_;
        uint64_t bytes_;
    };

    // A place for an upload of a user, who gets half of each limit. Waits while memory is short, which the
    // work pool is told of; an upload that needs more than a limit waits until it is alone under it.
    // Null when too many uploads are under way, or after close().
    std::unique_ptr<Ticket> admit(uid_t user, uint64_t bytes) TELVORA_EXCLUDES(mutex_);

    // Admits nobody any more; those that wait are turned away.
    void close() TELVORA_EXCLUDES(mutex_);

  private:
    struct Load {
        size_t uploads = 0;
        uint64_t bytes = 0;
    };

    bool hasMemoryFor(const Load& share, uint64_t bytes) const TELVORA_REQUIRES(mutex_);
    void release(uid_t user, uint64_t bytes, size_t uploads) TELVORA_EXCLUDES(mutex_);

    const UploadLimits limits_;
    Mutex mutex_;
    std::condition_variable_any changed_;
    Load total_ TELVORA_GUARDED_BY(mutex_);
    std::map<uid_t, Load> byUser_ TELVORA_GUARDED_BY(mutex_);
    bool closed_ TELVORA_GUARDED_BY(mutex_) = false;
};

}  // namespace telvora
