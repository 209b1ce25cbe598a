// SPDX-License-Identifier: Apache-2.0
//
// The totals of earlier runs of the daemon, in "lastTotals.plist" of the state directory: a daemon that was
// started on demand ends when it is idle, and its figures would be gone when an administrator looks.
#pragma once

#include <filesystem>
#include <string>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// A run of the daemon. The accounts are those of the status (protocol/status_keys.h).
struct RunTotals {
    Dictionary totals;       // accounts by name
    Dictionary clientTypes;  // accounts by client type and name
    double startTime = 0;    // seconds since 1970
    double endTime = 0;      // likewise
};

// Adds the numbers of `more` to those of `sums` under the same keys, also within dictionaries.
void addNumbers(Dictionary& sums, const Dictionary& more);

// {endTime (d), totals} of the last run, and allRuns {since (d), clientTypes}, the sums of all runs. Empty if
// the file is absent or can't be read. Blocks on file I/O.
Dictionary readLastTotals(const std::filesystem::path& stateDirectory);

// Makes the run the last one, and adds it to the sums, unless it has no report. In the sums, reports that
// were held or in flight at the run's end are losses of the cause "daemonEnded". Those in the outbox are left
// out: the next run accepts them again. A failure is logged at level 4. Blocks on file I/O.
void keepLastTotals(const std::filesystem::path& stateDirectory, RunTotals run);

// Forgets all runs. Fails with the reason.
tl::expected<void, std::string> removeLastTotals(const std::filesystem::path& stateDirectory);

}  // namespace telvora
