// SPDX-License-Identifier: Apache-2.0
#include "sandbox/privileges.h"

#include <cap-ng.h>
#include <sys/prctl.h>

#include <cerrno>

#include "sandbox/refused_call.h"
#include "sandbox/sanitizer_needs.h"

namespace telvora {

namespace {

bool holdsCapability() {
    for (const capng_type_t set : {CAPNG_EFFECTIVE, CAPNG_PERMITTED, CAPNG_INHERITABLE, CAPNG_AMBIENT}) {
        for (unsigned capability = 0; capability <= CAP_LAST_CAP; ++capability) {
            if (capng_have_capability(set, capability) != 0) return true;
        }
    }
    return false;
}

}  // namespace

tl::expected<DroppedPrivileges, std::string> dropPrivileges() {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1UL, 0UL, 0UL, 0UL) != 0) {
        return tl::unexpected(refusedCall("prctl", errno) + " with PR_SET_NO_NEW_PRIVS");
    }
    if (capng_get_caps_process() != 0) return tl::unexpected(refusedCall("capget", errno));
    const bool mayDropBounds = capng_have_capability(CAPNG_EFFECTIVE, CAP_SETPCAP) != 0;
    const bool held = holdsCapability();
    capng_clear(CAPNG_SELECT_ALL);
    if (mayDropBounds && capng_apply(CAPNG_SELECT_BOUNDS) != 0) {
        return tl::unexpected(std::string("can't drop the capability bounding set"));
    }
    // A service manager that starts the daemon without capabilities need not allow capset(2).
    if (held && capng_apply(CAPNG_SELECT_CAPS) != 0) {  // also clears the ambient set
        return tl::unexpected(refusedCall("capset", errno));
    }
    DroppedPrivileges dropped;
    if (capng_get_caps_process() != 0 || holdsCapability()) {
        return tl::unexpected(std::string("capabilities are left"));
    }
    dropped.boundingSet = capng_have_capabilities(CAPNG_SELECT_BOUNDS) == CAPNG_NONE;
    if (!sanitizer_needs::kDumpable) prctl(PR_SET_DUMPABLE, 0UL, 0UL, 0UL, 0UL);
    dropped.notDumpable = prctl(PR_GET_DUMPABLE, 0UL, 0UL, 0UL, 0UL) == 0;
    return dropped;
}

}  // namespace telvora
