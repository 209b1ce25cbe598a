// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/environment.h"
#include "plist/property_list.h"

namespace telvora::bag {

// A session, its client and its device. An empty value means unknown or absent.
struct Scenario {
    EnvironmentType environment = EnvironmentType::release;
    uint32_t clientType = 0;
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
    Dictionary userInfo = {};  // besides the two names
    bool requireUserInfo = true;
    bool batch = false;
    Dictionary device;                   // as in device.plist
    std::optional<std::string> country;  // two capital letters
    bool consent = false;
    double draw = 0;  // the sampling factor, from 0 to 1
    std::string framework = "8.0";
};

}  // namespace telvora::bag
