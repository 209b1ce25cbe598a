// SPDX-License-Identifier: Apache-2.0
//
// The cost of sending with libtelvora: telvora-bench-sender, a program of its own, reports to the daemon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "plist/property_list.h"

namespace telvora::bench {

struct SendingOptions {
    uint64_t reports = 100'000;
    std::vector<size_t> threads;  // that send on one session; each count is a measurement of its own
};

// The figures: one entry per count of threads. Throws std::runtime_error if a report does not arrive exactly
// once.
Array measureSending(const SendingOptions& options);

}  // namespace telvora::bench
