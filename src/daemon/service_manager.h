// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace telvora {

// Tells the service manager how the daemon is: "READY=1", "STOPPING=1", ... as sd_notify(3) defines them.
// Nothing happens in a process that no manager waits for. From any thread.
void notifyServiceManager(const char* state);

}  // namespace telvora
