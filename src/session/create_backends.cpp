// SPDX-License-Identifier: Apache-2.0
#include "session/create_backends.h"

#include "session/backend_factory.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace TelvoradUtil {

using namespace telvora;

namespace {

// The session info's number under a key, cut to the bits of the type; 0 without one.
template <typename Number>
Number numberIn(const Dictionary& sessionInfo, std::string_view key) {
    return static_cast<Number>(sessionInfo.wrappedInteger(key).value_or(0));
}

}  // namespace

std::optional<BackendDictionary> createBackends(const BackendServices& services,
                                                const ClientFramework& framework,
                                                const std::shared_ptr<const Dictionary>& bag,
                                                const Dictionary* sessionInfo,
                                                const std::shared_ptr<const Dictionary>& userInfo,
                                                const DeviceIDBuffer& deviceID,
                                                std::shared_ptr<ClientAccounts> accounts) {
    if (!bag) {
        TELVORA_LOG(kLogError, "createBackends: Attempted to create backends with nil storebag");
        return std::nullopt;
    }
    if (sessionInfo == nullptr) {
        TELVORA_LOG(kLogError, "createBackends: Attempted to create backends with nil session info");
        return std::nullopt;
    }
    const DeviceIdentity& device = services.identity;
    const auto identity = std::make_shared<const BackendIdentity>(
        BackendIdentity{.sessionID = numberIn<uint32_t>(*sessionInfo, kTelvoraSessionInfoSessionID),
                        .compType = numberIn<int32_t>(*sessionInfo, kTelvoraSessionInfoClientType),
                        .clientVersion = numberIn<uint16_t>(*sessionInfo, kTelvoraSessionInfoClientVersion),
                        .udid = deviceID,
                        .device = device.texts(),
                        .isInternal = device.isInternal(),
                        .requireUserInfo = sessionInfo->boolean(kTelvoraSessionInfoRequireUserInfo),
                        .batchEvents = sessionInfo->boolean(kTelvoraSessionInfoBatchEvent),
                        .selfVersion = SelfVersion(framework.bundleVersion()),
                        .startTimestamp = services.clock(),
                        .accounts = std::move(accounts)});
    BackendDictionary backends;
    for (const auto& [name, profile] : *bag) {
        const auto backend = newBackendWithName(services, name, BackendProfile(bag, &profile), identity);
        if (!backend) continue;
        backend->setUserInfoDict(userInfo);
        backends.emplace(name, backend);
    }
    return backends;
}

}  // namespace TelvoradUtil
