// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdio>
#include <future>

#include "commands.h"
#include "json.h"
#include "json/json_reader.h"
#include "telvora/keys.h"

namespace telvora::ctl {

tl::expected<Dictionary, std::string> payloadOf(const ReportOptions& report) {
    Dictionary payload;
    if (report.payloadJson) {
        const auto parsed = parseJson(*report.payloadJson);
        if (!parsed) return tl::unexpected("--payload-json: " + parsed.error());
        const auto* dictionary = parsed->getIf<Dictionary>();
        if (dictionary == nullptr) return tl::unexpected(std::string("--payload-json: not an object"));
        payload = *dictionary;
    }
    for (const std::string& entry : report.payload) {
        const size_t equals = entry.find('=');
        const bool typed = equals != std::string::npos && equals > 0 && entry[equals - 1] == ':';
        const std::string key = entry.substr(0, typed ? equals - 1 : equals);
        if (equals == std::string::npos || key.empty()) {
            return tl::unexpected("--payload " + entry + ": neither KEY=TEXT nor KEY:=JSON");
        }
        const std::string value = entry.substr(equals + 1);
        if (!typed) {
            payload.set(key, value);
            continue;
        }
        auto parsed = parseJson(value);
        if (!parsed) return tl::unexpected("--payload " + key + ": " + parsed.error());
        payload.set(key, std::move(*parsed));
    }
    return payload;
}

int fail(Status status, const std::string& problem) {
    std::fprintf(stderr, "telvoractl: %s\n", problem.c_str());
    return status;
}

Dictionary SessionOptions::sessionInfo() const {
    Dictionary info{{kTelvoraSessionInfoClientType, static_cast<long long>(clientType)},
                    {kTelvoraSessionInfoSessionID, static_cast<long long>(sessionID)}};
    if (clientVersion) info.set(kTelvoraSessionInfoClientVersion, static_cast<long long>(*clientVersion));
    if (batch) info.set(kTelvoraSessionInfoBatchEvent, true);
    if (requireUserInfo) info.set(kTelvoraSessionInfoRequireUserInfo, true);
    if (hierarchyToken) {
        info.set(kTelvoraSessionInfoHierarchyToken,
                 Dictionary{{kTelvoraHierarchyTokenLevel, static_cast<long long>(hierarchyLevel)},
                            {kTelvoraHierarchyTokenTokenID, *hierarchyToken}});
    }
    return info;
}

std::optional<Dictionary> SessionOptions::userInfo() const {
    if (!clientName && !serviceName) return std::nullopt;
    Dictionary info;
    if (clientName) info.set(kTelvoraUserInfoClientName, *clientName);
    if (serviceName) info.set(kTelvoraUserInfoServiceName, *serviceName);
    return info;
}

int runSend(const SessionOptions& options, const ReportOptions& report) {
    const auto payload = payloadOf(report);
    if (!payload) return fail(kBadInput, payload.error());

    using Outcome = tl::expected<std::string, CallFailure>;
    const auto promise = std::make_shared<std::promise<Outcome>>();
    std::future<Outcome> future = promise->get_future();
    ClientRuntime runtime;
    const auto session = ClientSession::connect(runtime, options.socketPath);
    if (!session) return fail(kDaemonMissing, session.error());
    (*session)->sendSingleMessage(
        options.sessionInfo(), options.userInfo(), report.category, report.type,
        report.payload.empty() && !report.payloadJson ? std::nullopt : std::optional<Dictionary>(*payload),
        [promise](Outcome outcome) { promise->set_value(std::move(outcome)); });

    if (future.wait_for(std::chrono::duration<double>(options.timeout)) != std::future_status::ready) {
        return fail(kNoAnswer, "the daemon did not answer");
    }
    const Outcome outcome = future.get();
    if (!outcome) {
        const bool lost = outcome.error().kind == CallFailure::Kind::kConnectionLost;
        return fail(lost ? kDaemonMissing : kNotReported, outcome.error().message);
    }
    printLine("outcome", std::optional<std::string>(*outcome));
    return *outcome == "finished" ? kDone : kNotReported;
}

}  // namespace telvora::ctl
