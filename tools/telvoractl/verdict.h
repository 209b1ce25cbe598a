// SPDX-License-Identifier: Apache-2.0
//
// The outcome of the reports of one session, from the daemon's accounts (status_keys.h): the answer to a
// report does not wait for the server, and that to a flush hides a status such as 404.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tl/expected.hpp>

#include "bus/bus_query.h"
#include "command.h"
#include "output.h"

namespace telvora::ctl {

// The numbers of a session's reports, over all backends.
struct SessionTally {
    int64_t inFlight = 0;
    int64_t held = 0;
    int64_t delivered = 0;
    int64_t kept = 0;
    std::map<std::string, int64_t> lost;  // by cause
};

class Verdict {
  public:
    // For a session of this process. `timeout`: seconds to wait for the servers.
    Verdict(const CommonOptions& common, int64_t sessionID, double timeout);

    // Notes the outcomes of the session's earlier reports, such as the daemon's own. Call it before the
    // report.
    void begin();
    // Waits until all reports of the session have an outcome, and prints that of those since begin(). Returns
    // a Status: kDone if all were delivered.
    int await(const Printer& print);

  private:
    tl::expected<SessionTally, BusQueryFailure> tally() const;
    int judge(const SessionTally& before, const SessionTally& now, const Printer& print) const;

    const std::string socket_;
    const int64_t sessionID_;
    const double timeout_;
    tl::expected<SessionTally, BusQueryFailure> before_;
};

}  // namespace telvora::ctl
