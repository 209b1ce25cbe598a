// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "http/server_outcomes.h"
#include "plist/property_list.h"

namespace telvora {

// The servers' part of the status (com.zandor.telvorad.Status.xml).
Array serverStatus(const ServerOutcomes& outcomes);

}  // namespace telvora
