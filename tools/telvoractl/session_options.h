// SPDX-License-Identifier: Apache-2.0
//
// The options of the commands that report: the reporter and the report.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "client/client_session.h"
#include "command.h"
#include "plist/property_list.h"

namespace telvora::ctl {

// The reporter. Absent options are not sent.
struct SessionOptions {
    int64_t clientType = 0;
    int64_t sessionID = 0;
    std::optional<int64_t> clientVersion;
    bool batch = false;
    bool requireUserInfo = true;
    std::optional<std::string> hierarchyToken;
    int64_t hierarchyLevel = 0;
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
    std::vector<std::string> frameworks;
    double timeout = 0;  // seconds for one answer

    Dictionary sessionInfo() const;
    std::optional<Dictionary> userInfo() const;
};

struct ReportOptions {
    uint16_t category = 0;
    uint16_t type = 0;
    std::vector<std::string> payload;  // KEY=TEXT or KEY:=JSON
    std::optional<std::string> payloadJson;

    // The payload, or the reason of failure. An absent payload if no option gave one.
    tl::expected<std::optional<Dictionary>, std::string> payloadOrNothing() const;
};

// Retries until the daemon answers, at least once and for `common.wait` seconds at most.
void awaitDaemon(const CommonOptions& common, const std::function<bool()>& isThere);

// Connects to the daemon and waits for it. Fails with the reason.
tl::expected<std::unique_ptr<ClientSession>, std::string> connect(
    ClientRuntime& runtime, const CommonOptions& common, const ClientSession::Handlers& handlers = {});

// "; no bag exists for client type 3, only for 5, 6, ...", or the command that shows another reason.
std::string whyWithoutBag(int64_t clientType);

void addSessionOptions(CLI::App& command, SessionOptions& options);
void addCategoryAndType(CLI::App& command, ReportOptions& report);
// With a payload.
void addReportOptions(CLI::App& command, ReportOptions& report);

}  // namespace telvora::ctl
