// SPDX-License-Identifier: Apache-2.0
#include "client/flush_watch.h"

#include <algorithm>

namespace telvora {

void FlushWatch::answerStates(size_t number, const ReportingStates& states) {
    if (states && states->empty()) silentStates_ = number;
}

void FlushWatch::add(std::weak_ptr<Flush> flush, size_t number) {
    std::erase_if(sent_, [](const Sent& sent) { return sent.flush.expired(); });
    sent_.push_back({std::move(flush), number});
}

FlushWatch::Suspects FlushWatch::takeSuspects() {
    Suspects suspects;
    if (silentStates_ == 0) return suspects;
    std::erase_if(sent_, [&](const Sent& sent) {
        if (sent.states != silentStates_) return false;
        suspects.push_back(sent.flush);
        return true;
    });
    return suspects;
}

void FlushWatch::convict(const Suspects& suspects) {
    for (const auto& suspect : suspects) {
        const auto flush = suspect.lock();
        if (flush) flush->answered(FlushAnswer{std::nullopt, makeTelvoraError(kNoBackends, -1)});
    }
}

}  // namespace telvora
