// SPDX-License-Identifier: Apache-2.0
#include "device_answer.h"

#include "client/status_query.h"
#include "config/device_description.h"
#include "settings.h"

namespace telvora::ctl {

Failure failureOf(const BusQueryFailure& failure) {
    using Kind = BusQueryFailure::Kind;
    const Status status = failure.kind == Kind::kRefused    ? kNotDone
                          : failure.kind == Kind::kNoAnswer ? kNoAnswer
                                                            : kDaemonMissing;
    return {status, failure.message};
}

tl::expected<Dictionary, Failure> describedDevice(const CommonOptions& common) {
    const auto answer = queryStatus(kGetDevice, statusSocketBeside(common.socket()));
    // Earlier daemons answer with the properties alone.
    if (answer && answer->contains(device::kConsent)) return *answer;
    if (!answer && answer.error().kind != BusQueryFailure::Kind::kUnreachable)
        return tl::unexpected(failureOf(answer.error()));

    auto settings = Settings::openReadable();
    if (!settings) {
        const std::string unreachable = answer ? "" : answer.error().message + "; ";
        return tl::unexpected(Failure{kNotDone, unreachable + settings.error()});
    }
    const DeviceProperties properties(settings->directories().configuration, settings->defaults());
    const DeviceIdentity identity(properties, settings->defaults());
    return describeDevice(properties, identity, Environment(settings->defaults(), identity),
                          ClientFramework(settings->directories().framework));
}

}  // namespace telvora::ctl
