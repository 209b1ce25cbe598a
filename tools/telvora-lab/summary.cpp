// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/summary.h"

#include <fstream>

namespace telvora::lab {
namespace {

// Writes each uploaded file to a file of its own.
Array writtenUploads(Laboratory& laboratory, const std::filesystem::path& directory) {
    Array written;
    const auto uploads = laboratory.uploads().uploads();
    const size_t dropped = laboratory.uploads().uploadCount() - uploads.size();
    for (const ServerRequest& upload : uploads) {
        const std::filesystem::path file =
            directory / "uploads" / std::to_string(dropped + written.size() + 1);
        std::error_code ignored;
        std::filesystem::create_directories(file.parent_path(), ignored);
        std::ofstream(file, std::ios::binary) << upload.body;
        written.push_back(Dictionary{{"target", upload.target}, {"file", file.string()}});
    }
    return written;
}

}  // namespace

Dictionary summaryOf(Laboratory& laboratory, const std::filesystem::path& directory) {
    Array messages;
    for (const ReceivedMessage& message : laboratory.reports().messages()) {
        Dictionary headers;
        for (const auto& [name, value] : message.headers)
            headers.set(name, value);
        messages.push_back(Dictionary{{"path", message.path},
                                      {"headers", headers},
                                      {"clientId", message.clientId},
                                      {"postTime", message.postTime},
                                      {"events", Array(message.events.begin(), message.events.end())}});
    }
    Array bagRequests;
    for (const BagRequest& request : laboratory.bags().requests()) {
        Dictionary entry{{"name", request.name}, {"version", request.version}, {"status", request.status}};
        if (request.ifModifiedSince) entry.set("ifModifiedSince", *request.ifModifiedSince);
        bagRequests.push_back(std::move(entry));
    }
    Array reports;
    for (const DashboardReport& report : laboratory.dashboard().reports())
        reports.push_back(describe(report));
    Dictionary dashboard = laboratory.dashboard().summary();
    dashboard.set("reports", std::move(reports));
    const auto uploads = laboratory.logData().uploads();
    std::vector<std::string> problems = laboratory.reports().problems();
    for (const std::string& problem : laboratory.logData().problems())
        problems.push_back("log data: " + problem);
    return {{"messages", std::move(messages)},
            {"bagRequests", std::move(bagRequests)},
            {"eventCount", laboratory.reports().eventCount()},
            {"distinctCount", laboratory.reports().distinctCount()},
            {"sessions", describeTree(laboratory.reports().sessions())},
            {"dashboard", std::move(dashboard)},
            {"logData", Array(uploads.begin(), uploads.end())},
            {"uploads", writtenUploads(laboratory, directory)},
            {"problems", Array(problems.begin(), problems.end())}};
}

}  // namespace telvora::lab
