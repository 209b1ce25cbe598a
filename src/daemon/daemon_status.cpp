// SPDX-License-Identifier: Apache-2.0
#include "daemon/daemon_status.h"

#include <unistd.h>

namespace telvora {

Dictionary daemonStatus(const StartTime& start) {
    const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - start.steady;
    return {{"version", TELVORA_VERSION},
            {"pid", getpid()},
            {"user", static_cast<long long>(geteuid())},
            {"startTime", Date{start.timeOfDay}},
            {"uptime", uptime.count()}};
}

Dictionary sandboxStatus(const SandboxStatus& sandbox) {
    return {{"profile", sandbox.profile},
            {"landlockAbi", sandbox.landlockAbi},
            {"files", sandbox.files},
            {"tcpBind", sandbox.tcpBind},
            {"deviceIoctl", sandbox.deviceIoctl},
            {"signals", sandbox.signals},
            {"abstractSockets", sandbox.abstractSockets},
            {"systemCallFilter", sandbox.systemCallFilter},
            {"noNewPrivileges", sandbox.noNewPrivileges},
            {"noCapabilities", sandbox.noCapabilities},
            {"emptyBoundingSet", sandbox.emptyBoundingSet},
            {"notDumpable", sandbox.notDumpable}};
}

Array userStatus(UserQuotas& quotas) {
    Array users;
    for (const auto& [user, uses] : quotas.uses()) {
        Dictionary described;
        for (size_t i = 0; i < kQuotas; ++i) {
            described.set(
                ruleOf(static_cast<Quota>(i)).name,
                Dictionary{{"held", uses[i].held}, {"limit", uses[i].limit}, {"refused", uses[i].refused}});
        }
        users.emplace_back(
            Dictionary{{"user", static_cast<long long>(user)}, {"quotas", std::move(described)}});
    }
    return users;
}

}  // namespace telvora
