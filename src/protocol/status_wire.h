// SPDX-License-Identifier: Apache-2.0
//
// The wire form of the administrator's interface, "com.zandor.telvorad.Status", at kTelvoradPath on a socket
// of its own. com.zandor.telvorad.Status.xml beside this file is the same, with what the answers hold, as
// published; a test holds the two together.
#pragma once

#include "bus/bus_interface.h"

namespace telvora {

// The socket's file name in the runtime directory, and its FileDescriptorName= at the service manager's.
inline constexpr char kTelvoradStatusSocketName[] = "com.zandor.telvorad.Status";

// The methods of the interface, in its order. Each takes nothing and answers with one dictionary.
enum class StatusMethod : size_t { kGetStatus, kGetDevice };

const BusInterface& statusBusInterface();

}  // namespace telvora
