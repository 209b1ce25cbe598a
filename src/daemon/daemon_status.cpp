// SPDX-License-Identifier: Apache-2.0
#include "daemon/daemon_status.h"

#include <unistd.h>

#include <fstream>

#include "protocol/status_keys.h"

namespace telvora {

namespace {

int64_t residentBytes() {
    int64_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

}  // namespace

Dictionary daemonStatus(const StartTime& start) {
    const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - start.steady;
    return {{status::kVersion, TELVORA_VERSION},
            {status::kPid, getpid()},
            {status::kUser, static_cast<long long>(geteuid())},
            {status::kStartTime, Date{start.timeOfDay}},
            {status::kUptime, uptime.count()},
            {status::kMemory, residentBytes()}};
}

Dictionary sandboxStatus(const SandboxStatus& sandbox) {
    return {{status::kProfile, sandbox.profile},
            {status::kLandlockAbi, sandbox.landlockAbi},
            {status::kFiles, sandbox.files},
            {status::kTcpBind, sandbox.tcpBind},
            {status::kDeviceIoctl, sandbox.deviceIoctl},
            {status::kSignals, sandbox.signals},
            {status::kAbstractSockets, sandbox.abstractSockets},
            {status::kSystemCallFilter, sandbox.systemCallFilter},
            {status::kNoNewPrivileges, sandbox.noNewPrivileges},
            {status::kNoCapabilities, sandbox.noCapabilities},
            {status::kEmptyBoundingSet, sandbox.emptyBoundingSet},
            {status::kNotDumpable, sandbox.notDumpable}};
}

Dictionary linkStatus(const LinkState& watched, const LinkState& state) {
    Dictionary link;
    if (watched.metered) link.set(status::kMetered, state.metered);
    if (watched.battery) link.set(status::kBattery, state.battery);
    return link;
}

Array userStatus(UserQuotas& quotas) {
    Array users;
    for (const auto& [user, uses] : quotas.uses()) {
        Dictionary described;
        for (size_t i = 0; i < kQuotas; ++i) {
            const auto quota = static_cast<Quota>(i);
            const bool isDaily = quota == Quota::reportsToday || quota == Quota::reportBytesToday;
            if (isDaily && !quotas.limitsDays()) continue;
            described.set(ruleOf(quota).name, Dictionary{{status::kHeld, uses[i].held},
                                                         {status::kLimit, uses[i].limit},
                                                         {status::kRefused, uses[i].refused}});
        }
        users.emplace_back(Dictionary{{status::kUser, static_cast<long long>(user)},
                                      {status::kQuotas, std::move(described)}});
    }
    return users;
}

}  // namespace telvora
