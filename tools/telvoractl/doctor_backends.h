// SPDX-License-Identifier: Apache-2.0
//
// The steps of a session with the backends of its bag: the daemon's own code decides, in a session that is
// tried in this process with the values that the daemon has found.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "doctor_configuration.h"

namespace telvora::ctl {

// The session that is tried. The draw is the daemon's random number for it.
struct DoctorSession {
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
    bool requireUserInfo = true;
    std::optional<uint16_t> category;  // of its reports
    double draw = 0;                   // 0 to 1
};

void examineBackends(DoctorReport& report, const DoctorFacts& facts, const DoctorSession& session);

}  // namespace telvora::ctl
