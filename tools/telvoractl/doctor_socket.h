// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "access/peer.h"
#include "doctor_report.h"

namespace telvora::ctl {

// Whether a connection to the clients' socket succeeds, for this process or for another one by the socket's
// rights. Reports the step; without a socket also the state of the service.
void examineSocket(DoctorReport& report, const std::string& path, const Peer& process);

// This process as the daemon would see it.
Peer thisProcess();

// "user 1000 (ada), pid 4711, unit app.service"
std::string describeProcess(const Peer& process);

}  // namespace telvora::ctl
