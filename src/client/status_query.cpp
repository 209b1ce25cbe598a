// SPDX-License-Identifier: Apache-2.0
#include "client/status_query.h"

#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"

namespace telvora {

std::string statusSocketBeside(const std::string& clientSocketPath) {
    return clientSocketPath + ".Status";
}

tl::expected<Dictionary, BusQueryFailure> queryStatus(StatusMethod method, const std::string& socketPath,
                                                      std::chrono::milliseconds timeout) {
    const BusInterface& interface = statusBusInterface();
    const std::string& name = interface.methods()[static_cast<size_t>(method)].name;
    auto reply = callAndWait({socketPath, kTelvoradPath, interface.name().c_str(), name.c_str(), timeout});
    if (!reply) return tl::unexpected(reply.error());
    ArgumentReader in(*reply);
    Dictionary answer = in.dictionary();
    if (in.ok()) return answer;
    return tl::unexpected(BusQueryFailure{BusQueryFailure::Kind::kRefused, in.failure()});
}

}  // namespace telvora
