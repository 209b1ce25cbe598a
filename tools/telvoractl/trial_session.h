// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "command.h"
#include "doctor_backends.h"

namespace telvora::ctl {

// Opens a session with the daemon, as any program does, and reports the steps that its answers decide. The
// session's start and end are reported like those of any session.
void trySession(DoctorReport& report, const CommonOptions& common, int64_t clientType,
                const DoctorSession& tried);

}  // namespace telvora::ctl
