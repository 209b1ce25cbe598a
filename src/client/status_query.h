// SPDX-License-Identifier: Apache-2.0
//
// Queries of the daemon's administrator interface, as telvoractl makes them:
//
//     auto device = queryStatus(kGetDevice, statusSocketBeside(clientSocketPath));
//     if (!device) return fail(..., device.error().message);
//     const std::string* name = device->string("DeviceName");
//
// The keys of the answers: protocol/status_keys.h.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "bus/bus_query.h"
#include "plist/property_list.h"
#include "protocol/outgoing_interface.h"
#include "protocol/status_interface.h"

namespace telvora {

// The path of the administrators' socket beside the clients' socket.
std::string statusSocketBeside(const std::string& clientSocketPath);

// The answer to the method of that name.
tl::expected<Dictionary, BusQueryFailure> queryStatusNamed(const char* method, const std::string& socketPath,
                                                           std::chrono::milliseconds timeout);

// The answer to one method, or the failure: kRefused if the caller may not read. Blocks for at most twice
// `timeout`. Callable from any thread.
template <typename Handler>
tl::expected<Dictionary, BusQueryFailure> queryStatus(
    const Method<Handler>& method, const std::string& socketPath,
    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    static_assert(std::is_same_v<typename Method<Handler>::Answer, std::tuple<Dictionary>>);
    return queryStatusNamed(method.name, socketPath, timeout);
}

// The answer to kDiagnose, as queryStatus(). The time limit is above that of several fetches of bags.
tl::expected<Dictionary, BusQueryFailure> queryFindings(
    const Dictionary& query, const std::string& socketPath,
    std::chrono::milliseconds timeout = std::chrono::seconds(60));

// Passes everything that leaves the device to `use`, in the batches of OutgoingInterface, until that returns
// false, or until the connection ends: returns the reason. Blocks the calling thread, which may be any.
std::optional<BusQueryFailure> watchOutgoing(const std::string& socketPath,
                                             const std::function<bool(const Dictionary& batch)>& use);

}  // namespace telvora
