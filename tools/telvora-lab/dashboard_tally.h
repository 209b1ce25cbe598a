// SPDX-License-Identifier: Apache-2.0
//
// DashboardTally: counts by event number which reports have arrived, and how often. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "plist/property_list.h"
#include "telvora-lab/dashboard_decoder.h"

namespace telvora::lab {

class DashboardTally {
  public:
    // Counts a report. Returns whether it is the first one of its number. Numbers wrap after 65535: the
    // report is the candidate nearest to the highest number so far.
    bool count(const DashboardReport& report);

    size_t arrived() const { return arrived_; }
    size_t distinct() const;
    // The share of arrived numbers between each session's lowest and highest one, over all sessions. Losses
    // at either end are not visible. 1 if no report has arrived.
    double deliveryRatio() const;
    // The number of reports that arrived once, twice and so on.
    std::map<size_t, size_t> timesArrived() const;
    // The figures above, and those of each session.
    Dictionary summary() const;

  private:
    struct Session {
        int64_t lowest = 0;
        int64_t highest = 0;
        std::unordered_map<int64_t, uint32_t> times;  // by unwrapped number

        size_t span() const { return static_cast<size_t>(highest - lowest + 1); }
    };

    size_t arrived_ = 0;
    std::map<std::pair<std::string, uint32_t>, Session> sessions_;  // by device and session
};

}  // namespace telvora::lab
