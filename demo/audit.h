// SPDX-License-Identifier: Apache-2.0
//
// The comparison of what was sent with what the reporting server received.
#pragma once

#include <string>
#include <vector>

#include "script.h"
#include "telvora-lab/reporting_server.h"

namespace telvora::demo {

struct Finding {
    const Report* report;
    std::string receivedAt;  // the path, or ""
    Dictionary received;     // what is left of the payload
    std::string fault;       // "" when all is as it must be
};

// One finding per report. Each event may serve for one report only; `strays` are told those that serve for
// none.
std::vector<Finding> audit(const std::vector<Report>& reports,
                           const std::vector<lab::ReceivedMessage>& messages,
                           std::vector<std::string>& strays);

// The findings as a table for people.
std::string table(const std::vector<Finding>& findings);

}  // namespace telvora::demo
