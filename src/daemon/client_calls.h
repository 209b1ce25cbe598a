// SPDX-License-Identifier: Apache-2.0
//
// The client's calls on the wire, decoded for the object that answers them. Everything here runs on the
// connection's strand.
#pragma once

#include <memory>
#include <vector>

#include "access/client_files.h"
#include "access/user_quotas.h"
#include "bus/bus_connection.h"
#include "protocol/client_session_interface.h"

namespace telvora {

// The objects behind a connection, empty pointers before the first call and after its end; and on whose
// behalf calls are carried out.
struct ClientCallTargets {
    std::shared_ptr<ClientSessionInterface> session;
    std::shared_ptr<ClientFiles> files;
    QuotaUser user;
};

// Handlers for clientSessionBusInterface() and sandboxExtensionBusInterface(), in their order. `bus` and
// `targets` outlive them.
std::vector<BusConnection::MethodHandler> clientSessionHandlers(BusConnection& bus,
                                                                const ClientCallTargets& targets);
std::vector<BusConnection::MethodHandler> sandboxExtensionHandlers(BusConnection& bus,
                                                                   const ClientCallTargets& targets);

}  // namespace telvora
