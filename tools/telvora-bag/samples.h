// SPDX-License-Identifier: Apache-2.0
//
// The fate of reports under a bag, found out by sending samples through real backends.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "telvora-bag/trial.h"

namespace telvora::bag {

// One backend of a section and the session that it is to serve. The references outlive all calls.
struct SampledBackend {
    const std::string& name;
    const PropertyList& profile;
    const Circumstances& circumstances;
};

// Prints which categories pass, and what becomes of plain, realtime and promoting reports.
void printFates(std::ostream& out, const SampledBackend& backend);

// Prints the filters in force, and where they leave user info unprotected.
void printFilters(std::ostream& out, const SampledBackend& backend);

}  // namespace telvora::bag
