// SPDX-License-Identifier: Apache-2.0
//
// Composes the parts of the status that concern the process and its users (protocol/status_keys.h).
#pragma once

#include <chrono>

#include "access/user_quotas.h"
#include "link/link_watch.h"
#include "plist/property_list.h"
#include "sandbox/sandbox.h"
#include "util/time_value.h"

namespace telvora {

// The start of the process by both clocks.
struct StartTime {
    double timeOfDay = 0;  // seconds since 1970
    std::chrono::steady_clock::time_point steady = std::chrono::steady_clock::now();
};

Dictionary daemonStatus(const StartTime& start);
Dictionary sandboxStatus(const SandboxStatus& sandbox);
// The values of `state` that are watched.
Dictionary linkStatus(const LinkState& watched, const LinkState& state);
Array userStatus(UserQuotas& quotas);

}  // namespace telvora
