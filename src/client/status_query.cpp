// SPDX-License-Identifier: Apache-2.0
#include "client/status_query.h"

#include "protocol/method_call.h"

namespace telvora {

namespace {

tl::expected<Dictionary, BusQueryFailure> call(BusQueryConnection& connection, const BusQuery& query,
                                               const auto& method) {
    tl::expected<Dictionary, BusQueryFailure> answer;
    const auto answered = connection.call(query, [&](BusMessage& message) {
        answer = readAnswer<Dictionary>(message, method).map_error([](std::string text) {
            return BusQueryFailure{BusQueryFailure::Kind::kRefused, std::move(text)};
        });
    });
    if (!answered) return tl::unexpected(answered.error());
    return answer;
}

}  // namespace

std::string statusSocketBeside(const std::string& clientSocketPath) {
    return clientSocketPath + ".Status";
}

tl::expected<Dictionary, BusQueryFailure> queryStatusNamed(const char* method, const std::string& socketPath,
                                                           std::chrono::milliseconds timeout) {
    const auto connection = BusQueryConnection::connect(socketPath);
    if (!connection) return tl::unexpected(connection.error());
    return call(**connection, {StatusInterface::kWirePath, StatusInterface::kWireName, method, timeout},
                kGetStatus);
}

tl::expected<Dictionary, BusQueryFailure> queryFindings(const Dictionary& query,
                                                        const std::string& socketPath,
                                                        std::chrono::milliseconds timeout) {
    const auto connection = BusQueryConnection::connect(socketPath);
    if (!connection) return tl::unexpected(connection.error());
    return call(**connection,
                {StatusInterface::kWirePath, StatusInterface::kWireName, kDiagnose.name, timeout,
                 argumentSignature(kDiagnose),
                 [&query](WireWriter& body) { return writeArguments(body, kDiagnose, query); }},
                kDiagnose);
}

std::optional<BusQueryFailure> watchOutgoing(const std::string& socketPath,
                                             const std::function<bool(const Dictionary& batch)>& use) {
    const auto connection = BusQueryConnection::connect(socketPath);
    if (!connection) return connection.error();
    for (;;) {
        const auto batch = call(
            **connection,
            {OutgoingInterface::kWirePath, OutgoingInterface::kWireName, kNextOutgoing.name, std::nullopt},
            kNextOutgoing);
        if (!batch) return batch.error();
        if (!use(*batch)) return std::nullopt;
    }
}

}  // namespace telvora
