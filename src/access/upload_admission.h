// SPDX-License-Identifier: Apache-2.0
//
// UploadAdmission: limits the number and the memory of concurrent uploads. A file and its compressed form are
// in memory whole, and a server may answer slowly. Each user has a share, which leaves room for the others.
//
// All operations are callable from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "util/mutex.h"

namespace telvora {

struct UploadLimits {
    size_t uploads = 64;                 // active or waiting for memory
    uint64_t bytes = uint64_t{1} << 30;  // of files and their compressed forms
};

class UploadAdmission {
  public:
    explicit UploadAdmission(UploadLimits limits = {}) : limits_(limits) {}

    // The resources of one upload, released on destruction. The admission must outlive it.
    class Ticket {
      public:
        Ticket(UploadAdmission& admission, uid_t user, uint64_t bytes)
            : admission_(admission), user_(user), bytes_(bytes) {}
        ~Ticket() { admission_.release(user_, bytes_, 1); }
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

        // The upload needs only so many bytes from now on; more are ignored.
        void shrink(uint64_t bytes);

      private:
        UploadAdmission& admission_;
        const uid_t user_;
        uint64_t bytes_;
    };

    using Admitted = std::function<void(std::unique_ptr<Ticket> ticket)>;

    // Admits an upload of a user, who gets half of each limit. Calls `admitted` once: before it returns, or,
    // while memory is short, on the thread that releases some. The uploads of a user start in their order,
    // and users take turns: a user whose next upload waits for the memory of others holds up the users
    // behind it. An upload that exceeds a limit waits until it is alone under it. Null if too many uploads
    // are active, or after close().
    void admit(uid_t user, uint64_t bytes, Admitted admitted) TELVORA_EXCLUDES(mutex_);

    // Refuses all further uploads, and those that wait.
    void close() TELVORA_EXCLUDES(mutex_);

  private:
    struct Load {
        size_t uploads = 0;
        uint64_t bytes = 0;
    };

    struct Waiting {
        uint64_t bytes;
        Admitted admitted;
    };

    // The uploads of a user that wait for memory, in their order.
    struct Queue {
        uid_t user;
        std::deque<Waiting> uploads;
    };

    using Ready = std::vector<std::pair<Admitted, std::unique_ptr<Ticket>>>;

    bool takePlace(uid_t user) TELVORA_REQUIRES(mutex_);
    Ready takeReady() TELVORA_REQUIRES(mutex_);
    void release(uid_t user, uint64_t bytes, size_t uploads) TELVORA_EXCLUDES(mutex_);

    const UploadLimits limits_;
    Mutex mutex_;
    Load total_ TELVORA_GUARDED_BY(mutex_);
    std::map<uid_t, Load> byUser_ TELVORA_GUARDED_BY(mutex_);
    std::list<Queue> queues_ TELVORA_GUARDED_BY(mutex_);  // in the order of the users' turns; none is empty
    bool closed_ TELVORA_GUARDED_BY(mutex_) = false;
};

}  // namespace telvora
