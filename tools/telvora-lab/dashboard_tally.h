// SPDX-License-Identifier: Apache-2.0
//
// DashboardTally: which of the reports that were sent have arrived, and how often, judged by their event
// numbers. Not thread-safe.
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
    // Counts a report; whether it is the first of its number. Numbers start anew after 65535: of the reports
    // that a number may stand for, it is the one nearest to the highest so far.
    bool count(const DashboardReport& report);

    size_t arrived() const { return arrived_; }
    size_t distinct() const;
    // Of the numbers between a session's lowest and highest, those that arrived, over all sessions: what is
    // missing at either end can't be known. 1 while nothing has arrived.
    double deliveryRatio() const;
    // How many reports arrived once, twice and so on.
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
