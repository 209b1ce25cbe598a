// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "plist/property_list.h"

namespace telvora::ctl {

// The numbers of the daemon's status (com.zandor.telvorad.Status.xml) as metrics, valid both as OpenMetrics
// 1.0 and in Prometheus' text format 0.0.4. The two name the family of a counter differently: counters have
// no TYPE line, only a name that ends in "_total".
//
// Labels have few values: client types and backends that the daemon knows, causes, quotas, bags, and at most
// 64 servers. Users, sessions and names of clients are no labels.
std::string openMetrics(const Dictionary& status);

}  // namespace telvora::ctl
