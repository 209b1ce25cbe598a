// SPDX-License-Identifier: Apache-2.0
#include "util/time_value.h"

#include <sys/time.h>

namespace telvora {

TimeValue timeOfDay() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return {static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_usec)};
}

}  // namespace telvora
