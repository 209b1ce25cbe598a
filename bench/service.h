// SPDX-License-Identifier: Apache-2.0
//
// The daemon as a service: how fast it is there, and what it costs while nothing happens.
#pragma once

#include <cstddef>

#include "plist/property_list.h"

namespace telvora::bench {

struct ServiceOptions {
    size_t starts = 20;
    double idleMinutes = 10;
};

// The figures. Throws std::runtime_error when the daemon does not start, or does not end when idle.
Dictionary measureService(const ServiceOptions& options);

}  // namespace telvora::bench
