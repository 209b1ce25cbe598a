// SPDX-License-Identifier: Apache-2.0
#include "platform/descriptor_limit.h"

#include <sys/resource.h>

#include <cerrno>
#include <system_error>

#include "util/log.h"

namespace telvora {

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        if (limit.rlim_cur == limit.rlim_max) return;
        limit.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
    }
    TELVORA_LOG(kLogDebug, "raiseDescriptorLimit: can't raise the limit of descriptors: %s",
                std::generic_category().message(errno).c_str());
}

}  // namespace telvora
