// SPDX-License-Identifier: Apache-2.0
//
// Compares the reports that were sent with the events that the reporting server received.
#pragma once

#include <string>
#include <vector>

#include "script.h"
#include "telvora-lab/reporting_server.h"

namespace telvora::demo {

struct Finding {
    const Report* report;
    std::string receivedAt;  // the path, or ""
    Dictionary received;     // the payload after the filters
    std::string fault;       // "" if the report arrived as expected
};

// One finding per report. Each event counts for one report only. Appends to `strays` the events that match no
// report.
std::vector<Finding> audit(const std::vector<Report>& reports,
                           const std::vector<lab::ReceivedMessage>& messages,
                           std::vector<std::string>& strays);

// The findings as a table for people.
std::string table(const std::vector<Finding>& findings);

}  // namespace telvora::demo
