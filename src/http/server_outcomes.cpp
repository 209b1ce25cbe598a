// SPDX-License-Identifier: Apache-2.0
#include "http/server_outcomes.h"

#include <algorithm>

#include "http/http_request_rules.h"

namespace telvora {

namespace {

constexpr int kNotModified = 304;

bool isFailure(const HttpResult& result) {
    return !result || (!isSuccess(*result) && result->status != kNotModified);
}

}  // namespace

void ServerOutcomes::record(std::string_view url, const HttpResult& result, double time) {
    std::string address = urlForLog(url);
    const bool failed = isFailure(result);
    const MutexLock lock(lock_);
    if (addresses_.size() >= kMaxAddresses && !addresses_.contains(address)) {
        addresses_.erase(std::min_element(addresses_.begin(), addresses_.end(), [](auto& a, auto& b) {
            return a.second.last.time < b.second.last.time;
        }));
    }
    Address& known = addresses_[address];
    known.url = std::move(address);
    known.last = {time, result ? result->status : 0, result ? "" : result.error().description};
    ++known.requests;
    if (!failed) return;
    ++known.failures;
    known.lastFailure = known.last;
}

std::vector<ServerOutcomes::Address> ServerOutcomes::addresses() const {
    std::vector<Address> all;
    const MutexLock lock(lock_);
    for (const auto& [url, address] : addresses_)
        all.push_back(address);
    return all;
}

}  // namespace telvora
