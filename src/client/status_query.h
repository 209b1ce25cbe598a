// SPDX-License-Identifier: Apache-2.0
//
// Asking the daemon what administrators may know, as telvoractl does:
//
//     auto device = queryStatus(StatusMethod::kGetDevice, statusSocketBeside(clientSocketPath));
//     if (!device) return fail(..., device.error().message);
//     const std::string* name = device->string("DeviceName");
//
// The keys of the answers: protocol/com.zandor.telvorad.Status.xml.
#pragma once

#include <chrono>
#include <string>
#include <tl/expected.hpp>

#include "bus/bus_query.h"
#include "plist/property_list.h"
#include "protocol/status_wire.h"

namespace telvora {

// The administrators' socket of the daemon whose clients' socket that is: its name with ".Status" behind it.
std::string statusSocketBeside(const std::string& clientSocketPath);

// The answer to one method, or why there is none: kRefused where the caller may not read. Blocks for at most
// twice `timeout`; callable from any thread.
tl::expected<Dictionary, BusQueryFailure> queryStatus(
    StatusMethod method, const std::string& socketPath,
    std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace telvora
