// SPDX-License-Identifier: Apache-2.0
//
// What a bag means for one session on one device.
#pragma once

#include <istream>
#include <string>
#include <tl/expected.hpp>

#include "telvora-bag/trial.h"

namespace telvora::bag {

// For people: which section holds, and backend by backend which entries were passed over and which one was
// taken, the state that follows and why, the fate of reports, and which fields are filtered. With `log`, the
// daemon's own lines of every level stand between, else only its warnings and errors. One at a time: it takes
// the log over for its duration.
std::string explainBag(const Dictionary& bag, const Circumstances& circumstances, bool log);

// For people: what becomes of recorded reports, one JSON object a line (report_json.h), and what they cost.
// Fails with the number of the first line that is none.
tl::expected<std::string, std::string> replayReports(const Dictionary& bag,
                                                     const Circumstances& circumstances,
                                                     std::istream& reports);

// The section that a session gets its backends from, or null.
const Dictionary* sectionForSession(const Dictionary& bag, const Circumstances& circumstances);

// How a state is called.
std::string_view nameOf(BackendState state);

}  // namespace telvora::bag
