// SPDX-License-Identifier: Apache-2.0
#include "platform/moment.h"

#include <cstdlib>
#include <ctime>

#include "platform/uuid.h"
#include "util/regular_file.h"
#include "util/time_value.h"

namespace telvora {

namespace {

// The unit passes the name, since the service does not see this part of /proc.
std::string nameOfBoot() {
    if (const char* passed = std::getenv("TELVORA_BOOT_ID"); passed != nullptr) return passed;
    const auto name = readRegularFile("/proc/sys/kernel/random/boot_id", 64);
    return name ? *name : randomUuidString();  // unknown: each process counts as a boot of its own
}

}  // namespace

Moment currentMoment() {
    static const std::string boot = nameOfBoot();
    timespec sinceBoot{};
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    return {TelvoradUtil::secondsFromTimeValue(timeOfDay()),
            static_cast<double>(sinceBoot.tv_sec) + static_cast<double>(sinceBoot.tv_nsec) / 1e9, boot};
}

}  // namespace telvora
