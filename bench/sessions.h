// SPDX-License-Identifier: Apache-2.0
//
// Many sessions at once: what one costs that does nothing, how long it takes to open, and what the reports of
// a hierarchy cost with an aggregator and without.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "plist/property_list.h"

namespace telvora::bench {

struct SessionsOptions {
    std::vector<size_t> counts;  // of concurrent sessions, each measured at a daemon of its own
    uint64_t reports = 20'000;   // per measurement of a report's cost
};

// The figures, an array with one entry per count and arrangement. Throws std::runtime_error when a session
// can't be opened or a report is not answered.
Array measureSessions(const SessionsOptions& options);

}  // namespace telvora::bench
