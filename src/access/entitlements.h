// SPDX-License-Identifier: Apache-2.0
//
// Entitlements: permissions that the administrator grants to clients by their identity, in property lists
//
//     <configuration directory>/entitlements.d/*.plist
//
// Each is a dictionary of conditions and permissions:
//
//     "User"          the peer's user: a name or a number
//     "Group"         its primary or one of its supplementary groups: a name or a number
//     "Unit"          its systemd unit, as "app.service"
//     "Label"         its label from the security module, as the kernel writes it
//     "Entitlements"  a dictionary of entitlements and their values
//
// All conditions of a file must hold; a file without conditions applies to every peer. Files are read in the
// byte order of their names; the value of a later file overrides that of an earlier one. A file that is
// malformed, holds another key or a value of another type, names an unknown user or group, or can be changed
// by an ordinary user (file_trust.h), also through a directory above it, grants no entitlement: doubt never
// grants a permission.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "access/peer.h"
#include "plist/property_list.h"

namespace telvora {

// The entitlement that admits a client.
inline constexpr std::string_view kClientEntitlement = "com.zandor.private.telvorad";

// How a value came about, for administrators.
struct EntitlementDecision {
    std::filesystem::path directory;  // of the files
    std::filesystem::path file;       // that gave the value; empty: no file did
    struct Other {
        std::filesystem::path file;
        std::string reason;  // why it did not count, for people
    };
    std::vector<Other> others;
};

// Immutable, so safe from any thread.
class EntitlementStore {
  public:
    explicit EntitlementStore(const std::filesystem::path& configurationDirectory)
        : directory_(configurationDirectory / "entitlements.d") {}

    // The value of the entitlement `name` for `peer`; std::nullopt if no file grants it. Reads the files at
    // each call, so that a change applies to the next connection; a refused file is logged at level 4.
    // Blocks on file I/O and on the look-up of user and group names (nsswitch.conf(5)).
    // `decision`: null if the caller does not need it.
    std::optional<PropertyList> valueForEntitlement(const Peer& peer, std::string_view name,
                                                    EntitlementDecision* decision = nullptr) const;

  private:
    std::filesystem::path directory_;
};

}  // namespace telvora
