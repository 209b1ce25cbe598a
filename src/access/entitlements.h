// SPDX-License-Identifier: Apache-2.0
//
// Entitlements: what the administrator lets a client do, by the client's identity. They stand in property
// lists
//
//     <configuration directory>/entitlements.d/*.plist
//
// each a dictionary that says whom it is about and what these may do:
//
//     "User"          the peer's user: a name or a number
//     "Group"         its primary or one of its supplementary groups: a name or a number
//     "Unit"          its systemd unit, as "app.service"
//     "Label"         what the security module calls it, in the kernel's words
//     "Entitlements"  a dictionary of entitlements and their values
//
// All of the first four that are there must hold; with none of them the file is about every peer. Files are
// read in the byte order of their names; a later one's value for an entitlement overrides an earlier one's.
// A file that is malformed, holds another key or a value of another type grants nothing, and so does one that
// names an unknown user or group: what is doubtful is never a permission.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "access/peer.h"
#include "plist/property_list.h"

namespace telvora {

// Immutable, so safe from any thread.
class EntitlementStore {
  public:
    explicit EntitlementStore(const std::filesystem::path& configurationDirectory)
        : directory_(configurationDirectory / "entitlements.d") {}

    // The value of the entitlement `name` for `peer`, or nothing. Reads the files at each call, so that a
    // change counts for the next connection; a malformed file is logged at level 4. Blocks on file I/O and on
    // the look-up of user and group names (nsswitch.conf(5)).
    std::optional<PropertyList> valueForEntitlement(const Peer& peer, std::string_view name) const;

  private:
    std::filesystem::path directory_;
};

}  // namespace telvora
