// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "backends/report_account.h"
#include "config/device_identity.h"
#include "util/time_value.h"

namespace telvora {

// Version of the client framework.
struct SelfVersion {
    SelfVersion() = default;
    // Reads a dotted version as versionComponents() does.
    explicit SelfVersion(std::string_view version);

    std::array<uint8_t, 3> components{};  // major, middle, minor
    std::string text = "0.0";  // as servers read it: "3.1", or "3.1.2" if the minor number is not 0
};

// Identity under which a backend reports: session, client and device. All backends of a session share one,
// which does not change.
struct BackendIdentity {
    uint32_t sessionID = 0;
    int32_t compType = 0;  // the client type
    uint16_t clientVersion = 0;
    DeviceIDBuffer udid{};
    std::shared_ptr<const DeviceTexts> device = std::make_shared<const DeviceTexts>();  // not null
    bool isInternal = false;
    bool requireUserInfo = false;
    bool batchEvents = false;
    SelfVersion selfVersion = {};
    TimeValue startTimestamp = {};  // of the session
    // Accounts of the client, and the user whose quotas its reports count against. Null: each backend has
    // accounts of its own, and no quota applies.
    std::shared_ptr<ClientAccounts> accounts = nullptr;
};
using SharedIdentity = std::shared_ptr<const BackendIdentity>;

}  // namespace telvora
