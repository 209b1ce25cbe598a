// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>

#include "backends/report_account.h"
#include "plist/property_list.h"

namespace telvora {

// Accounts in the form of com.zandor.telvorad.Status.xml, for administrators. Causes without losses are left
// out.
Dictionary describe(const ReportTallies& tallies);
// Likewise, by client type.
Dictionary describe(const std::map<int, ReportTallies>& totals);

}  // namespace telvora
