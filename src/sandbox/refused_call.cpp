// SPDX-License-Identifier: Apache-2.0
#include "sandbox/refused_call.h"

#include <cerrno>
#include <system_error>

namespace telvora {

std::string refusedCall(const std::string& call, int error) {
    std::string reason = call + "(2): " + std::generic_category().message(error);
    // No permission is needed to give up rights: only a filter around the process refuses that.
    if (error == EPERM) reason += "; the service manager or container must allow this system call";
    if (error == ENOSYS) reason += "; the kernel lacks it";
    return reason;
}

}  // namespace telvora
