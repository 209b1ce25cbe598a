// SPDX-License-Identifier: Apache-2.0
//
// The totals of the last run of the daemon, in the state directory: a daemon that was started on demand ends
// when it is idle, and its figures would be gone when an administrator looks.
#pragma once

#include <filesystem>

#include "plist/property_list.h"

namespace telvora {

// "lastTotals.plist" of the directory: {endTime (d), totals}. Empty if the file is absent or can't be read.
// Blocks on file I/O.
Dictionary readLastTotals(const std::filesystem::path& stateDirectory);

// Replaces the file, unless `totals` have no report. `endTime`: seconds since 1970. A failure is logged at
// level 4. Blocks on file I/O.
void keepLastTotals(const std::filesystem::path& stateDirectory, Dictionary totals, double endTime);

}  // namespace telvora
