// SPDX-License-Identifier: Apache-2.0
//
// The canary: a client whose service is measured without and with each attack by another user.
#pragma once

#include <string>
#include <vector>

namespace telvora::bench {

struct CanaryOptions {
    std::vector<std::string> attacks;  // names; empty: all
    double seconds = 10;               // of each measurement
};

// Prints a table. Returns the exit status. Throws std::runtime_error if the canary is not served, and unless
// this process is root, which can start processes of other users.
int measureCanary(const CanaryOptions& options);

// The canary's own process: prints "open" and, from the end of its input on, measures its service; then
// prints the figures that measureCanary() reads. Ends the process, or returns its exit status.
int runCanary(const std::string& socketPath, double seconds);

}  // namespace telvora::bench
