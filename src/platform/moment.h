// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace telvora {

// A moment by both clocks. The time of day may jump; the time since the boot does not.
struct Moment {
    double timeOfDay = 0;  // seconds since 1970
    double sinceBoot = 0;  // seconds, time in suspends included
    std::string boot;      // names the boot
};

// Callable from any thread. The first call may block on file I/O.
Moment currentMoment();

}  // namespace telvora
