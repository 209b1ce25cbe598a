// SPDX-License-Identifier: Apache-2.0
#include "connections/refusal_log.h"

#include <string>
#include <utility>

#include "util/log.h"

namespace telvora {

namespace {

constexpr std::chrono::minutes kPeriod{1};

}  // namespace

void RefusalLog::notEntitled(const Peer& peer) {
    const auto now = clock_();
    uint64_t before = 0;
    {
        const MutexLock lock(lock_);
        ++counts_.notEntitled;
        counts_.last = peer;
        counts_.lastTime = now;
        std::erase_if(users_, [&](const auto& entry) {
            return entry.first != peer.uid && entry.second.nextLine <= now;
        });
        Refusals& refusals = users_[peer.uid];
        if (now >= refusals.nextSecond) {
            refusals.inThisSecond = 0;
            refusals.nextSecond = now + std::chrono::seconds(1);
        }
        ++refusals.inThisSecond;
        if (now < refusals.nextLine) {
            ++refusals.unlogged;
            return;
        }
        before = std::exchange(refusals.unlogged, 0);
        refusals.nextLine = now + kPeriod;
    }
    const std::string others = before > 0 ? ", after " + std::to_string(before) + " more of this user" : "";
    TELVORA_LOG(kLogInfo, "RefusalLog: refused %s%s%s: not entitled, see telvorad.entitlements(5)%s",
                peer.description().c_str(), peer.unit.empty() ? "" : ", unit ", peer.unit.c_str(),
                others.c_str());
}

bool RefusalLog::refusesAtOnce(uid_t user) {
    const auto now = clock_();
    const MutexLock lock(lock_);
    const auto found = users_.find(user);
    if (found == users_.end() || now >= found->second.nextSecond ||
        found->second.inThisSecond < kMostInASecond) {
        return false;
    }
    ++found->second.unlogged;
    ++counts_.tooFrequent;
    return true;
}

void RefusalLog::overQuota() {
    const MutexLock lock(lock_);
    ++counts_.overQuota;
}

RefusalLog::Counts RefusalLog::counts() const {
    const MutexLock lock(lock_);
    return counts_;
}

}  // namespace telvora
