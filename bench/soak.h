// SPDX-License-Identifier: Apache-2.0
//
// The soak: friendly and hostile clients of several users report through daemons that are killed and
// restarted, to servers that fail, on a disk that fills up, while the clock jumps and bags change. The ledger
// must agree with the server's books, and the last daemon must not grow.
#pragma once

#include <cstdint>

namespace telvora::bench {

struct SoakOptions {
    uint64_t reports = 0;  // until the server has received so many; 0: for `seconds`
    double seconds = 60;
    uint64_t seed = 1;     // of the order of all disturbances
    bool verbose = false;  // whether standard error gets the course of the run
};

// Prints a table. Returns the exit status: 0 if everything agrees. Call it before the process has threads.
int soak(const SoakOptions& options);

}  // namespace telvora::bench
