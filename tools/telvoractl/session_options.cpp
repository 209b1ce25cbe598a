// SPDX-License-Identifier: Apache-2.0
#include "session_options.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <limits>
#include <random>
#include <thread>

#include "config/client_type.h"
#include "json/json_reader.h"
#include "output.h"
#include "telvora/keys.h"

namespace telvora::ctl {

namespace {
// The client name unless one is given: a session that requires user info holds its reports until it has one.
constexpr char kOwnName[] = "telvoractl";
}  // namespace

void awaitDaemon(const CommonOptions& common, const std::function<bool()>& isThere) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause{50};
    const auto deadline = Clock::now() + std::chrono::duration<double>(common.wait);
    while (!isThere() && Clock::now() + kPause <= deadline)
        std::this_thread::sleep_for(kPause);
}

tl::expected<std::unique_ptr<ClientSession>, std::string> connect(ClientRuntime& runtime,
                                                                  const CommonOptions& common,
                                                                  const ClientSession::Handlers& handlers) {
    tl::expected<std::unique_ptr<ClientSession>, std::string> session;
    Progress progress;
    awaitDaemon(common, [&] {
        if (!session) progress.show("waiting for the daemon");
        session = ClientSession::connect(runtime, common.socket(), handlers);
        return session.has_value();
    });
    return session;
}

std::string whyWithoutBag(int64_t clientType) {
    std::string others;
    for (int64_t type = 0; type <= kLastClientType; ++type) {
        if (factsOfClientType(type)->bagName.empty()) continue;
        if (type == clientType)
            return "; 'telvoractl doctor --client-type " + std::to_string(type) + "' shows the reason";
        others += (others.empty() ? "" : ", ") + std::to_string(type);
    }
    return "; no bag exists for client type " + std::to_string(clientType) + ", only for " + others;
}

void addSessionOptions(CLI::App& command, SessionOptions& options) {
    const CLI::Range unsigned32(int64_t{0}, int64_t{std::numeric_limits<uint32_t>::max()});
    command.add_option("--client-type", options.clientType, "Client type: selects the configuration")
        ->required()
        ->check(unsigned32);
    options.sessionID = std::random_device{}();
    command.add_option("--session-id", options.sessionID, "Session ID; default: a random one")
        ->check(unsigned32);
    command.add_option("--client-version", options.clientVersion, "Client version")
        ->check(CLI::Range(0, 65535));
    command.add_option("--client-name", options.clientName,
                       "Client name, part of the user info; default: telvoractl");
    command.add_option("--service-name", options.serviceName, "Service name, part of the user info");
    command.add_flag("!--no-user-info-required", options.requireUserInfo,
                     "The session does not require user info: its reports leave without the user's consent, "
                     "and no condition or filter of the bag applies");
    command.add_flag("--require-user-info")->group("");  // the default; for scripts that still set it
    command.add_flag("--batch", options.batch, "Batch events");
    command.add_option("--hierarchy-token", options.hierarchyToken, "Token that correlates sessions");
    command.add_option("--hierarchy-level", options.hierarchyLevel, "Level in the hierarchy, 0 at the top")
        ->needs("--hierarchy-token")
        ->check(unsigned32);
    command.add_option("--framework", options.frameworks, "Framework to check (repeatable)");
    command.add_option("--timeout", options.timeout, "Seconds to wait for an answer")
        ->default_val(120)
        ->check(CLI::PositiveNumber);
}

void addCategoryAndType(CLI::App& command, ReportOptions& report) {
    command.add_option("--category", report.category, "Category, 0 to 65535")->required();
    command.add_option("--type", report.type, "Type, 0 to 65535")->required();
}

void addReportOptions(CLI::App& command, ReportOptions& report) {
    addCategoryAndType(command, report);
    command.add_option("--payload", report.payload,
                       "KEY=TEXT for a string, KEY:=JSON for any other value (repeatable)");
    command.add_option("--payload-json", report.payloadJson,
                       "A JSON object; --payload entries replace its own");
}

Dictionary SessionOptions::sessionInfo() const {
    Dictionary info{{kTelvoraSessionInfoClientType, static_cast<long long>(clientType)},
                    {kTelvoraSessionInfoSessionID, static_cast<long long>(sessionID)}};
    if (clientVersion) info.set(kTelvoraSessionInfoClientVersion, static_cast<long long>(*clientVersion));
    if (batch) info.set(kTelvoraSessionInfoBatchEvent, true);
    info.set(kTelvoraSessionInfoRequireUserInfo, requireUserInfo);
    if (hierarchyToken) {
        info.set(kTelvoraSessionInfoHierarchyToken,
                 Dictionary{{kTelvoraHierarchyTokenLevel, static_cast<long long>(hierarchyLevel)},
                            {kTelvoraHierarchyTokenTokenID, *hierarchyToken}});
    }
    return info;
}

std::optional<Dictionary> SessionOptions::userInfo() const {
    const bool isNamed = clientName || serviceName;
    if (!isNamed && !requireUserInfo) return std::nullopt;
    Dictionary info;
    if (clientName || !isNamed) info.set(kTelvoraUserInfoClientName, clientName.value_or(kOwnName));
    if (serviceName) info.set(kTelvoraUserInfoServiceName, *serviceName);
    return info;
}

tl::expected<std::optional<Dictionary>, std::string> ReportOptions::payloadOrNothing() const {
    if (payload.empty() && !payloadJson) return std::nullopt;
    Dictionary result;
    if (payloadJson) {
        const auto parsed = parseJson(*payloadJson);
        if (!parsed) return tl::unexpected("--payload-json: " + parsed.error());
        const auto* dictionary = parsed->getIf<Dictionary>();
        if (dictionary == nullptr) return tl::unexpected(std::string("--payload-json: not an object"));
        result = *dictionary;
    }
    for (const std::string& entry : payload) {
        const size_t equals = entry.find('=');
        const bool typed = equals != std::string::npos && equals > 0 && entry[equals - 1] == ':';
        const std::string key = entry.substr(0, typed ? equals - 1 : equals);
        if (equals == std::string::npos || key.empty()) {
            return tl::unexpected("--payload " + entry + ": neither KEY=TEXT nor KEY:=JSON");
        }
        const std::string value = entry.substr(equals + 1);
        if (!typed) {
            result.set(key, value);
            continue;
        }
        auto parsed = parseJson(value);
        if (!parsed) return tl::unexpected("--payload " + key + ": " + parsed.error());
        result.set(key, std::move(*parsed));
    }
    return result;
}

}  // namespace telvora::ctl
