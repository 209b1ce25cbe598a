// SPDX-License-Identifier: Apache-2.0
#include "client/status_query.h"

#include "protocol/method_call.h"

namespace telvora {

namespace {

template <typename Handler>
tl::expected<Dictionary, BusQueryFailure> dictionaryFrom(const BusQuery& query,
                                                         const Method<Handler>& method) {
    tl::expected<Dictionary, BusQueryFailure> dictionary;
    const auto answered = callAndWait(query, [&](BusMessage& answer) {
        dictionary = readAnswer<Dictionary>(answer, method).map_error([](std::string text) {
            return BusQueryFailure{BusQueryFailure::Kind::kRefused, std::move(text)};
        });
    });
    if (!answered) return tl::unexpected(answered.error());
    return dictionary;
}

}  // namespace

std::string statusSocketBeside(const std::string& clientSocketPath) {
    return clientSocketPath + ".Status";
}

tl::expected<Dictionary, BusQueryFailure> queryStatusNamed(const char* method, const std::string& socketPath,
                                                           std::chrono::milliseconds timeout) {
    return dictionaryFrom(
        {socketPath, StatusInterface::kWirePath, StatusInterface::kWireName, method, timeout}, kGetStatus);
}

tl::expected<Dictionary, BusQueryFailure> queryFindings(const Dictionary& query,
                                                        const std::string& socketPath,
                                                        std::chrono::milliseconds timeout) {
    return dictionaryFrom({socketPath, StatusInterface::kWirePath, StatusInterface::kWireName, kDiagnose.name,
                           timeout, argumentSignature(kDiagnose),
                           [&query](WireWriter& body) { return writeArguments(body, kDiagnose, query); }},
                          kDiagnose);
}

}  // namespace telvora
