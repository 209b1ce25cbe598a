// SPDX-License-Identifier: Apache-2.0
#include "http/server_outcomes.h"

#include <algorithm>

namespace telvora {

namespace {

constexpr int kNotModified = 304;

bool isSuccess(int status) {
    return (status >= 200 && status <= 299) || status == kNotModified;
}

}  // namespace

std::string addressOfUrl(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    const size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return std::string(url);
    const size_t authority = scheme + 3;
    const size_t path = std::min(url.find('/', authority), url.size());
    const size_t at = url.substr(0, path).rfind('@');
    if (at == std::string_view::npos || at < authority) return std::string(url);
    return std::string(url.substr(0, authority)).append(url.substr(at + 1));
}

void ServerOutcomes::record(std::string_view url, const HttpResult& result, double time) {
    std::string address = addressOfUrl(url);
    const bool failed = !result || !isSuccess(result->status);
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
