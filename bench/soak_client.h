// SPDX-License-Identifier: Apache-2.0
//
// A friendly client of the soak, in a process of its own: it reports in rounds, and keeps a book of them on
// its standard output, which its kill leaves intact.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace telvora::bench {

// The process. Reports until SIGTERM, with a session after another. Returns the exit status.
int runSoakClient(const std::string& socketPath, uint64_t client, uint64_t seed);

struct ClientBook {
    uint64_t sessions = 0;
    uint64_t sent = 0;          // or begun to send
    uint64_t acknowledged = 0;  // the least number, without the reports of kListedCategory
    // Reports that a server has received: first number and count. Without those of kListedCategory.
    std::vector<std::pair<uint64_t, uint64_t>> confirmed;
};
// The book in the process's output.
ClientBook clientBook(uint64_t client, const std::vector<std::string>& lines);

}  // namespace telvora::bench
