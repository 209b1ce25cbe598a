// SPDX-License-Identifier: Apache-2.0
//
// The facts about a device's configuration on which the daemon's decisions depend, in the form of
// com.zandor.telvorad.Status.xml. The daemon answers administrators with them; a tool collects them by itself
// where no daemon runs.
#pragma once

#include "access/entitlements.h"
#include "config/client_framework.h"
#include "config/device_identity.h"
#include "config/environment.h"
#include "platform/directories.h"

namespace telvora {

// All references live for the call.
struct FindingSources {
    const Directories& directories;
    UserDefaults& defaults;
    const DeviceProperties& properties;
    const DeviceIdentity& identity;
    const Environment& environment;
    const ClientFramework& framework;
    const EntitlementStore& entitlements;
};

// The findings without those about a bag. Blocks on file I/O and on the look-up of names. Callable from any
// thread.
Dictionary configurationFindings(const FindingSources& sources, const Peer& process);

// The settings that name a file which this process can't read, with the reason.
Array unreadableFiles(UserDefaults& defaults);

// The files with public keys, in the same form.
Array publicKeyStatus(const ClientFramework& framework);

// A process as part of a query, and back. A query without a user has the highest ID, which no process has.
Dictionary describe(const Peer& process);
Peer peerIn(const Dictionary& query);

}  // namespace telvora
