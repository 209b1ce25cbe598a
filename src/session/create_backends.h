// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "config/client_framework.h"
#include "config/device_identity.h"
#include "plist/property_list.h"
#include "session/backend_factory.h"

namespace telvora {

// The backends of a session by the bag key that made them, in the order in which every walk goes over them.
using BackendDictionary = std::map<std::string, std::shared_ptr<TelvoraBackend>>;

// What backends are made from, beside a bag and a session. All must outlive the backends.
struct BackendSources {
    const BackendFactory& factory;
    const DeviceIdentity& identity;
    const ClientFramework& framework;
    Clock clock;
};

}  // namespace telvora

namespace TelvoradUtil {

// Makes every backend that `bag` (the environment's section) names and gives it the identity of the session;
// keys that name no backend are skipped, so that the result may be empty. Nothing, with a line at level 3,
// when the bag or the session info is null. `userInfo` may be null. Callable from any thread.
std::optional<telvora::BackendDictionary> createBackends(
    const telvora::BackendSources& sources, const std::shared_ptr<const telvora::Dictionary>& bag,
    const telvora::Dictionary* sessionInfo, const std::shared_ptr<const telvora::Dictionary>& userInfo,
    const telvora::DeviceIDBuffer& deviceID, telvora::ClientAccounts& accounts);

}  // namespace TelvoradUtil
