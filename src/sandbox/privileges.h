// SPDX-License-Identifier: Apache-2.0
//
// Drops privileges beyond those of the user: capabilities(7), no_new_privs and the dumpable flag (prctl(2)).
#pragma once

#include <string>
#include <tl/expected.hpp>

namespace telvora {

// The result of dropPrivileges().
struct DroppedPrivileges {
    bool boundingSet = false;  // the capability bounding set is empty, too
    bool notDumpable = false;  // no core dumps, no ptrace(2) by others; not so in sanitized builds
};

// Sets no_new_privs and drops all capabilities. The bounding set is dropped only with CAP_SETPCAP; otherwise
// it stays, without effect under no_new_privs. Must be called before the process has a second thread. Fails
// with a reason if a capability remains.
tl::expected<DroppedPrivileges, std::string> dropPrivileges();

}  // namespace telvora
