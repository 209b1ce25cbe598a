// SPDX-License-Identifier: Apache-2.0
//
// Giving up what a process might do beyond its user's rights: capabilities(7), no_new_privs and the dumpable
// flag (prctl(2)).
#pragma once

#include <filesystem>
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

// Where this process is the superuser's and `directory` another user's: becomes that user for good, with its
// groups. Else, or without such a directory, does nothing. So the files that are made there are that user's,
// and no trap among those that are there reaches further than that user does. Before the process has a second
// thread. Fails with a reason; then the process must not go on.
tl::expected<void, std::string> becomeOwnerOf(const std::filesystem::path& directory);

}  // namespace telvora
