// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "backends/telvora_backend.h"
#include "config/client_framework.h"
#include "plist/property_list.h"

namespace telvora {

// The backends of a session by bag key. Every loop over the backends runs in this order.
using BackendDictionary = std::map<std::string, std::shared_ptr<TelvoraBackend>>;

}  // namespace telvora

namespace TelvoradUtil {

// Makes every backend that `bag` (the environment's section) names, with the identity of the session. Keys
// that name no backend are skipped, so that the result may be empty. `std::nullopt`, with a line at level 3,
// if the bag or the session info is null. `userInfo` and `accounts` may be null. `services` outlives the
// backends. Reads the framework's version from its file. Callable from any thread.
std::optional<telvora::BackendDictionary> createBackends(
    const telvora::BackendServices& services, const telvora::ClientFramework& framework,
    const std::shared_ptr<const telvora::Dictionary>& bag, const telvora::Dictionary* sessionInfo,
    const std::shared_ptr<const telvora::Dictionary>& userInfo, const telvora::DeviceIDBuffer& deviceID,
    std::shared_ptr<telvora::ClientAccounts> accounts);

}  // namespace TelvoradUtil
