// SPDX-License-Identifier: Apache-2.0
//
// The effect of a bag on one session on one device.
#pragma once

#include <istream>
#include <string>
#include <tl/expected.hpp>

#include "telvora-bag/dry_run.h"

namespace telvora::bag {

// Text for people: the section in use; for each backend the entries that were skipped and the one that was
// chosen, the resulting state with its reason, the outcome of reports, and the filters. With `log`, the
// daemon's log lines of every level are included, else only warnings and errors. Not reentrant: it redirects
// the process's log while it runs.
std::string explainBag(const Dictionary& bag, const Scenario& scenario, bool log);

// Text for people: the outcome and the size of recorded reports, one JSON object a line (report_json.h).
// Fails with the number of the first malformed line.
tl::expected<std::string, std::string> replayReports(const Dictionary& bag, const Scenario& scenario,
                                                     std::istream& reports);

// The section from which a session gets its backends, or null.
const Dictionary* sectionForSession(const Dictionary& bag, const Scenario& scenario);

// The name of a state in the output.
std::string_view nameOf(BackendState state);

}  // namespace telvora::bag
