// SPDX-License-Identifier: Apache-2.0
//
// The daemon as a service: its start time, and its cost while idle.
#pragma once

#include <cstddef>

#include "plist/property_list.h"

namespace telvora::bench {

struct ServiceOptions {
    size_t starts = 20;
    double idleMinutes = 10;
};

// The figures. Throws std::runtime_error if the daemon does not start, or does not end when idle.
Dictionary measureService(const ServiceOptions& options);

}  // namespace telvora::bench
