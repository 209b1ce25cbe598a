// SPDX-License-Identifier: Apache-2.0
//
// The administrator's interface, on a socket of its own. com.zandor.telvorad.Status.xml beside this file is
// the same as published, with the keys of the answers (status_keys.h); a test compares the methods.
#pragma once

#include "plist/property_list.h"
#include "protocol/client_session_interface.h"
#include "protocol/method.h"

namespace telvora {

// The name of the administrators' socket in the runtime directory, and its FileDescriptorName= in the service
// manager's unit.
inline constexpr char kTelvoradStatusSocketName[] = "com.zandor.telvorad.Status";

// Called once, on any thread.
using FindingsReply = std::function<void(Dictionary findings)>;

// Its operations are called on any thread, also concurrently.
class StatusInterface {
  public:
    static constexpr char kWireName[] = "com.zandor.telvorad.Status";
    static constexpr const char* kWirePath = kTelvoradPath;
    virtual ~StatusInterface() = default;

    virtual Dictionary getStatus() = 0;
    virtual Dictionary getDevice() = 0;
    virtual void diagnose(Dictionary query, FindingsReply reply) = 0;
    virtual void refreshBags(std::function<void(Dictionary bags)> reply) = 0;
};

inline constexpr auto kGetStatus = method("GetStatus", &StatusInterface::getStatus, {}, {"status"});
inline constexpr auto kGetDevice = method("GetDevice", &StatusInterface::getDevice, {}, {"properties"});
inline constexpr auto kRefreshBags = method("RefreshBags", &StatusInterface::refreshBags, {}, {"bags"});
inline constexpr auto kDiagnose = method("Diagnose", &StatusInterface::diagnose, {"query"}, {"findings"});
inline constexpr std::tuple kStatusMethods{kGetStatus, kGetDevice, kRefreshBags, kDiagnose};

}  // namespace telvora
