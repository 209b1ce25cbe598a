// SPDX-License-Identifier: Apache-2.0
//
// What the daemon as a process tells its administrators; protocol/com.zandor.telvorad.Status.xml says what
// each key means.
#pragma once

#include <chrono>

#include "access/user_quotas.h"
#include "plist/property_list.h"
#include "sandbox/sandbox.h"
#include "util/time_value.h"

namespace telvora {

// When the process began, by both clocks.
struct StartTime {
    double timeOfDay = 0;  // seconds since 1970
    std::chrono::steady_clock::time_point steady = std::chrono::steady_clock::now();
};

// Under "daemon": version, process, start.
Dictionary daemonStatus(const StartTime& start);
// Under "sandbox": what of the confinement is in force.
Dictionary sandboxStatus(const SandboxStatus& sandbox);
// Under "users": what each has of its quotas.
Array userStatus(UserQuotas& quotas);

}  // namespace telvora
