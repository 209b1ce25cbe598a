// SPDX-License-Identifier: Apache-2.0
#include "session/create_backends.h"

#include "telvora/keys.h"
#include "util/log.h"

namespace TelvoradUtil {

using namespace telvora;

std::optional<BackendDictionary> createBackends(const BackendSources& sources,
                                                const std::shared_ptr<const Dictionary>& bag,
                                                const Dictionary* sessionInfo,
                                                const std::shared_ptr<const Dictionary>& userInfo,
                                                const DeviceIDBuffer& deviceID, ClientAccounts& accounts) {
    if (!bag) {
        TELVORA_LOG(kLogError, "createBackends: Attempted to create backends with nil storebag");
        return std::nullopt;
    }
    if (sessionInfo == nullptr) {
        TELVORA_LOG(kLogError, "createBackends: Attempted to create backends with nil session info");
        return std::nullopt;
    }
    const TimeValue startTimestamp = sources.clock();
    const DeviceIdentity& identity = sources.identity;
    const std::string frameworkVersion = sources.framework.bundleVersion();
    const std::optional<std::string> deviceName = identity.deviceName();
    const auto clientType =
        static_cast<int32_t>(sessionInfo->wrappedInteger(kTelvoraSessionInfoClientType).value_or(0));

    BackendDictionary backends;
    for (const auto& [name, profile] : *bag) {
        const std::shared_ptr<TelvoraBackend> backend =
            sources.factory.newBackendWithName(name, BackendProfile(bag, &profile), deviceName, clientType);
        if (!backend) continue;
        backend->setAccounts(accounts.of(name), accounts.of(ClientAccounts::kUploads), accounts.user());
        backend->setSessionID(
            static_cast<uint32_t>(sessionInfo->wrappedInteger(kTelvoraSessionInfoSessionID).value_or(0)));
        backend->setCompType(clientType);
        backend->setClientVersion(
            static_cast<uint16_t>(sessionInfo->wrappedInteger(kTelvoraSessionInfoClientVersion).value_or(0)));
        backend->setUdid(deviceID);
        backend->setProductVersion(identity.productVersion());
        backend->setBuildVersion(identity.buildVersion());
        backend->setHardwareType(identity.productType());
        backend->setIsInternal(identity.isInternal());
        backend->setRequireUserInfo(sessionInfo->boolean(kTelvoraSessionInfoRequireUserInfo));
        backend->setBatchEvents(sessionInfo->boolean(kTelvoraSessionInfoBatchEvent));
        backend->setUserInfoDict(userInfo);
        backend->setSelfVersion(frameworkVersion);
        backend->setStartTimestamp(startTimestamp);
        backends.emplace(name, backend);
    }
    return backends;
}

}  // namespace TelvoradUtil
