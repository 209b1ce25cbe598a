// SPDX-License-Identifier: Apache-2.0
//
// Giving up what a process might do beyond its user's rights: capabilities(7), no_new_privs and the dumpable
// flag (prctl(2)).
#pragma once

#include <string>
#include <tl/expected.hpp>

namespace telvora {

// What dropPrivileges() reached.
struct DroppedPrivileges {
    bool boundingSet = false;  // whether also the capability bounding set is empty
    bool notDumpable = false;  // no core dumps, no ptrace(2) by others; not so in sanitized builds
};

// Sets no_new_privs and drops every capability. The bounding set can be dropped only by a process that has
// CAP_SETPCAP; without it, it's left, where no_new_privs makes it void. Before the process has a second
// thread. Fails with a reason when a capability is left.
tl::expected<DroppedPrivileges, std::string> dropPrivileges();

}  // namespace telvora
