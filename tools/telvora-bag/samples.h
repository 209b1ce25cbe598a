// SPDX-License-Identifier: Apache-2.0
//
// The outcome of reports under a bag, determined by sending samples through real backends.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "telvora-bag/dry_run.h"

namespace telvora::bag {

// One backend of a section, and its session. The references must outlive all calls.
struct SampledBackend {
    const std::string& name;
    const PropertyList& profile;
    const Scenario& scenario;
};

// Prints the categories that pass, and the outcome of plain, realtime and promoting reports.
void printOutcomes(std::ostream& out, const SampledBackend& backend);

// Prints the filters in force, and where they leave user info unprotected.
void printFilters(std::ostream& out, const SampledBackend& backend);

}  // namespace telvora::bag
