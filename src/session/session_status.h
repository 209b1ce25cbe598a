// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>

#include "backends/report_account.h"
#include "plist/property_list.h"

namespace telvora {

// Accounts as administrators are told of them (com.zandor.telvorad.Status.xml): of the causes of losses only
// those that there were.
Dictionary describe(const std::map<std::string, ReportTally>& tallies);

}  // namespace telvora
