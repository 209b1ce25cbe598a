// SPDX-License-Identifier: Apache-2.0
#include "daemon/service_manager.h"

#include <systemd/sd-daemon.h>

#include "util/error_text.h"
#include "util/log.h"

namespace telvora {

void notifyServiceManager(const char* state) {
    const int result = sd_notify(0, state);
    if (result < 0) {
        TELVORA_LOG(kLogWarning, "main: can't tell the service manager: %s", errorText(-result).c_str());
    }
}

}  // namespace telvora
