// SPDX-License-Identifier: Apache-2.0
#include "diagnosis/server_status.h"

#include "protocol/status_keys.h"

namespace telvora {

Array serverStatus(const ServerOutcomes& outcomes) {
    const auto describe = [](const ServerOutcomes::Outcome& outcome) {
        Dictionary described{{status::kTime, Date{outcome.time}}};
        if (outcome.status != 0) described.set(status::kHttpStatus, outcome.status);
        if (!outcome.reason.empty()) described.set(status::kReason, outcome.reason);
        return described;
    };
    Array servers;
    for (const ServerOutcomes::Address& address : outcomes.addresses()) {
        Dictionary described{{status::kUrl, address.url},
                             {status::kRequests, address.requests},
                             {status::kFailures, address.failures},
                             {status::kLast, describe(address.last)}};
        if (address.lastFailure) described.set(status::kLastFailure, describe(*address.lastFailure));
        servers.emplace_back(std::move(described));
    }
    return servers;
}

}  // namespace telvora
