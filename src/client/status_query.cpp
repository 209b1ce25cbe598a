// SPDX-License-Identifier: Apache-2.0
#include "client/status_query.h"

#include "protocol/method_call.h"

namespace telvora {

std::string statusSocketBeside(const std::string& clientSocketPath) {
    return clientSocketPath + ".Status";
}

tl::expected<Dictionary, BusQueryFailure> queryStatusNamed(const char* method, const std::string& socketPath,
                                                           std::chrono::milliseconds timeout) {
    tl::expected<Dictionary, BusQueryFailure> status;
    const auto answered =
        callAndWait({socketPath, StatusInterface::kWirePath, StatusInterface::kWireName, method, timeout},
                    [&](BusMessage& answer) {
                        status = readAnswer<Dictionary>(answer, kGetStatus).map_error([](std::string text) {
                            return BusQueryFailure{BusQueryFailure::Kind::kRefused, std::move(text)};
                        });
                    });
    if (!answered) return tl::unexpected(answered.error());
    return status;
}

}  // namespace telvora
