// SPDX-License-Identifier: Apache-2.0
//
// Processes of other users at the daemon: this program again, as a client or an attacker.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace telvora::bench {

// Users without an account.
constexpr uid_t kFriendlyUsers[] = {65531, 65532};
constexpr uid_t kAttackingUser = 65533;
constexpr uid_t kUnentitledUser = 65530;

enum class Priority {
    normal,  // 0, whatever this process has
    apart    // the lowest, and on the last processor only
};

// Starts this program with these arguments as that user, or as the user of this process unless that is root.
// It dies with the calling thread at the latest. Throws std::runtime_error if no process can be made.
std::unique_ptr<test::ChildProcess> startPeer(uid_t user, const std::vector<std::string>& arguments,
                                              Priority priority = Priority::normal);

// Runs such a process and returns its exit status; std::nullopt if the arguments (with the program's name)
// are others.
std::optional<int> runAsPeer(const std::vector<std::string>& arguments);

}  // namespace telvora::bench
