// SPDX-License-Identifier: Apache-2.0
#include "sandbox/refused_call.h"

#include <cerrno>

#include "util/error_text.h"

namespace telvora {

std::string refusedCall(const std::string& call, int error) {
    std::string reason = errorText(call + "(2)", error);
    // Dropping rights needs no permission: only a filter around the process refuses it.
    if (error == EPERM) reason += "; the service manager or container must allow this system call";
    if (error == ENOSYS) reason += "; the kernel lacks it";
    return reason;
}

}  // namespace telvora
