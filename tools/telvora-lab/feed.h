// SPDX-License-Identifier: Apache-2.0
//
// Feed: the latest arrivals at the servers, as JSON records for viewers. A server never waits for a viewer:
// the feed keeps a bounded number of bytes, and a viewer that is slower loses the oldest records.
//
// All operations are callable from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "plist/property_list.h"
#include "util/mutex.h"

namespace telvora::lab {

class Feed {
  public:
    explicit Feed(size_t maxBytes = kDefaultMaxBytes) : maxBytes_(maxBytes) {}

    // Adds a record: an object with "kind", "at" (milliseconds since 1970), "reports" (their number), these
    // fields and, unless it is empty, "body", which must be valid JSON.
    void add(std::string_view kind, Dictionary fields, size_t reports = 0, std::string_view body = {});

    struct Excerpt {
        uint64_t first = 0;          // the number of the first record; the first record of all is 1
        uint64_t reportsBefore = 0;  // in all records before it, so that a viewer can count its losses
        uint64_t reports = 0;        // in the records
        std::vector<std::string> records;
        uint64_t next() const { return first + records.size(); }
    };
    // The records from number `from` on, or from the oldest kept one, up to `maxBytes` of them and at least
    // one. Waits until there is one, at most for `wait`. A number that the feed has not reached yet, other
    // than the next one, counts as 1.
    Excerpt read(uint64_t from, size_t maxBytes, std::chrono::milliseconds wait) const;

    // Ends all present and future waits.
    void close();
    bool closed() const;

  private:
    struct Record {
        std::string text;
        uint64_t reportsBefore = 0;
        uint64_t reports = 0;
    };

    static constexpr size_t kDefaultMaxBytes = 32 << 20;

    const size_t maxBytes_;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    std::deque<Record> records_ TELVORA_GUARDED_BY(mutex_);
    uint64_t first_ TELVORA_GUARDED_BY(mutex_) = 1;  // the number of records_.front()
    uint64_t reports_ TELVORA_GUARDED_BY(mutex_) = 0;
    size_t bytes_ TELVORA_GUARDED_BY(mutex_) = 0;
    bool closed_ TELVORA_GUARDED_BY(mutex_) = false;
};

}  // namespace telvora::lab
