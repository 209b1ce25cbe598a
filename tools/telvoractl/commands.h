// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "platform/property_list.h"

namespace telvora::ctl {

// Exit statuses.
enum Status : int {
    kDone = 0,
    kNotReported = 1,    // the daemon has no configuration for the client, or answered with an error
    kBadInput = 2,       // command line or standard input
    kDaemonMissing = 3,  // it can't be reached, or the connection was lost
    kNoAnswer = 4,       // within the time that was given
};

// Who reports. Options that were not given are absent and not sent.
struct SessionOptions {
    std::string socketPath;
    int64_t clientType = 0;
    int64_t sessionID = 0;
    std::optional<int64_t> clientVersion;
    bool batch = false;
    bool requireUserInfo = false;
    std::optional<std::string> hierarchyToken;
    int64_t hierarchyLevel = 0;
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
    std::vector<std::string> frameworks;
    bool aggregate = false;
    double timeout = 0;  // seconds for one answer

    Dictionary sessionInfo() const;
    std::optional<Dictionary> userInfo() const;
};

struct ReportOptions {
    uint16_t category = 0;
    uint16_t type = 0;
    std::vector<std::string> payload;  // KEY=TEXT or KEY:=JSON
    std::optional<std::string> payloadJson;
};

// Where a dashboard's reports go and who they are from.
struct DashboardOptions {
    std::string collector;          // ADDRESS:PORT
    bool unreliable = false;        // as a bag without "reliable" has it
    std::optional<int64_t> period;  // as a bag with this "reliable" has it, in milliseconds
    int32_t componentType = 0;
    uint32_t sessionID = 1;
    uint16_t clientVersion = 0;
    std::string selfVersion = "1.0";
    std::optional<std::string> deviceID;  // absent: the device's own
    uint16_t firstEventNumber = 1;
    uint32_t count = 1;
    uint32_t interval = 0;  // milliseconds
};

// The payload of a report, or what is wrong with it.
tl::expected<Dictionary, std::string> payloadOf(const ReportOptions& report);

// Runs a session: reports from the lines of `input`, then flush and finish. Returns a Status, and prints what
// is wrong to standard error.
int runSession(const SessionOptions& options, std::istream& input);

// Sends one report without a session.
int runSend(const SessionOptions& options, const ReportOptions& report);

// Sends reports to a dashboard's collector from this process; returns when none of them waits any more.
int runDashboardSend(const DashboardOptions& options, const ReportOptions& report);

// Prints "telvoractl: problem" to standard error and returns the status.
int fail(Status status, const std::string& problem);

}  // namespace telvora::ctl
