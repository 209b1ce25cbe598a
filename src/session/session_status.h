// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>

#include "backends/report_account.h"
#include "plist/property_list.h"

namespace telvora {

// Accounts in the form of com.zandor.telvorad.Status.xml, for administrators. Causes without losses are left
// out.
Dictionary describe(const std::map<std::string, ReportTally>& tallies);

}  // namespace telvora
