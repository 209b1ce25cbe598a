// SPDX-License-Identifier: Apache-2.0
#include "client/status_query.h"

#include <cstdlib>

#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"

namespace telvora {

std::string defaultStatusSocketPath() {
    if (const char* path = std::getenv("TELVORA_STATUS_SOCKET"); path != nullptr && *path != '\0')
        return path;
    const char* directories = std::getenv("RUNTIME_DIRECTORY");
    std::string directory = directories != nullptr ? directories : "";
    directory = directory.substr(0, directory.find(':'));
    if (directory.empty()) directory = "/run/telvora";
    return directory + "/" + kTelvoradStatusSocketName;
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
