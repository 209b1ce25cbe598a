// SPDX-License-Identifier: Apache-2.0
#include "backends/joulemark_backend.h"

#include "platform/power_log.h"

namespace telvora {

namespace {

constexpr uint32_t kCategory = 28;
constexpr char kEventName[] = "MediaHostD-TVR";

}  // namespace

std::shared_ptr<JoulemarkBackend> JoulemarkBackend::make(const BackendServices& services, std::string name,
                                                         BackendProfile profile, SharedIdentity identity) {
    return std::shared_ptr<JoulemarkBackend>(
        new JoulemarkBackend(services, std::move(name), std::move(profile), std::move(identity)));
}

std::optional<std::string> JoulemarkBackend::sendMessage(const std::optional<Dictionary>& payload,
                                                         TimeValue /*timestamp*/, uint16_t method,
                                                         uint16_t respCode, EventID eventID) {
    if (method == 0 || !payload || payload->empty() || services_.powerLog == nullptr) return std::nullopt;
    Dictionary event = *payload;
    event.set("method", unsigned{method});
    event.set("respCode", unsigned{respCode});
    event.set("event", static_cast<unsigned>(eventID));
    services_.powerLog->JMLogRegisteredEvent(kCategory, kEventName, event, nullptr);
    return std::nullopt;
}

}  // namespace telvora
