// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "plist/property_list.h"

namespace telvora::ctl {

// Prints the daemon's status (com.zandor.telvorad.Status.xml) as tables.
void printStatus(const Dictionary& status);

}  // namespace telvora::ctl
