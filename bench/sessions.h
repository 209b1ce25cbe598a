// SPDX-License-Identifier: Apache-2.0
//
// Many sessions at once: the memory of an idle session, the time to open one, and the cost of a hierarchy's
// reports with an aggregator and without.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "plist/property_list.h"

namespace telvora::bench {

struct SessionsOptions {
    std::vector<size_t> counts;  // of concurrent sessions; each count has a daemon of its own
    uint64_t reports = 20'000;   // per measurement of a report's cost
};

// The figures: an array with one entry per count and arrangement. Throws std::runtime_error if a session
// can't be opened or a report is not answered.
Array measureSessions(const SessionsOptions& options);

}  // namespace telvora::bench
