// SPDX-License-Identifier: Apache-2.0
//
// The session and the device that the page wants explained.
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "telvora-bag/dry_run.h"

namespace telvora::lab {

// Reads {"clientType", "clientName", "serviceName", "userInfo", "requireUserInfo", "batch", "environment",
// "country", "consent", "draw", "device"}; all but the first may be absent. Fails with a reason. Thread-safe.
tl::expected<bag::Scenario, std::string> scenarioOf(const Dictionary& fields);

}  // namespace telvora::lab
