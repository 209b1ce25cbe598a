// SPDX-License-Identifier: Apache-2.0
//
// ServerOutcomes: remembers the last outcome and the last failure of the requests to each address, for
// administrators. An address is a URL as urlForLog() gives it, without private parts. Bounded: of more
// addresses than kMaxAddresses, those without a request for the longest time are forgotten.
//
// All operations are callable from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/http_client.h"
#include "util/mutex.h"

namespace telvora {

class ServerOutcomes {
  public:
    static constexpr size_t kMaxAddresses = 64;

    struct Outcome {
        double time = 0;     // seconds since 1970
        int status = 0;      // of the HTTP answer; 0: no answer came
        std::string reason;  // why no answer came
    };
    struct Address {
        std::string url;
        uint64_t requests = 0;
        uint64_t failures = 0;  // no answer, or neither 2xx nor 304
        Outcome last;
        std::optional<Outcome> lastFailure;
    };

    // Takes the result of a request to `url`, which ended at `time`, in seconds since 1970.
    void record(std::string_view url, const HttpResult& result, double time) TELVORA_EXCLUDES(lock_);
    // The addresses in the order of their URLs.
    std::vector<Address> addresses() const TELVORA_EXCLUDES(lock_);

  private:
    mutable Mutex lock_;
    std::map<std::string, Address> addresses_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
