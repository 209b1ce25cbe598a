// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/dashboard_tally.h"

#include <algorithm>

namespace telvora::lab {
namespace {

double ratio(size_t part, size_t whole) {
    return whole == 0 ? 1 : static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace

bool DashboardTally::count(const DashboardReport& report) {
    ++arrived_;
    Session& session = sessions_[{report.device, report.session}];
    if (session.times.empty()) session.lowest = session.highest = report.eventNumber;
    const auto step = static_cast<int16_t>(report.eventNumber - static_cast<uint16_t>(session.highest));
    const int64_t number = session.highest + step;
    session.lowest = std::min(session.lowest, number);
    session.highest = std::max(session.highest, number);
    return ++session.times[number] == 1;
}

size_t DashboardTally::distinct() const {
    size_t count = 0;
    for (const auto& [key, session] : sessions_)
        count += session.times.size();
    return count;
}

double DashboardTally::deliveryRatio() const {
    size_t sent = 0;
    for (const auto& [key, session] : sessions_)
        sent += session.span();
    return ratio(distinct(), sent);
}

std::map<size_t, size_t> DashboardTally::timesArrived() const {
    std::map<size_t, size_t> histogram;
    for (const auto& [key, session] : sessions_) {
        for (const auto& [number, times] : session.times)
            ++histogram[times];
    }
    return histogram;
}

Dictionary DashboardTally::summary() const {
    Array sessions;
    for (const auto& [key, session] : sessions_) {
        sessions.push_back(Dictionary{{"device", key.first},
                                      {"session", key.second},
                                      {"lowest", session.lowest},
                                      {"highest", session.highest},
                                      {"distinct", session.times.size()},
                                      {"deliveryRatio", ratio(session.times.size(), session.span())}});
    }
    Dictionary times;
    for (const auto& [count, reports] : timesArrived())
        times.set(std::to_string(count), reports);
    return {{"arrived", arrived_},
            {"distinct", distinct()},
            {"timesArrived", std::move(times)},
            {"deliveryRatio", deliveryRatio()},
            {"sessions", std::move(sessions)}};
}

}  // namespace telvora::lab
