// SPDX-License-Identifier: Apache-2.0
//
// telvora-lab: the laboratory as a program, for manual trials and for tests in other languages.
#include <CLI/CLI.hpp>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "completion/program.h"
#include "plist/property_list_format.h"
#include "telvora-lab/collect_command.h"
#include "telvora-lab/end_of_run.h"
#include "telvora-lab/event_json.h"
#include "telvora-lab/laboratory.h"
#include "telvora-lab/session_tree.h"
#include "util/ascii.h"
#include "util/utf8.h"

namespace {

using namespace telvora;
using namespace telvora::lab;

constexpr int kUsageError = 2;

struct Arguments {
    std::string directory;
    std::vector<std::string> bags;
    std::string signedBags;
    std::string environmentFile;
    std::vector<std::string> bagFaults;
    std::string reportingFault = "none";
    std::string logDataFault = "none";
    std::string uploadAnswer = "success";
    std::string countByKey;
    CollectorOptions collector;
    bool ignoreInput = false;
};

int complain(const std::string& message) {
    std::cerr << "telvora-lab: " << escapeControlCharacters(message) << '\n';
    return kUsageError;
}

// Splits "NAME=VALUE". `std::nullopt` without an equals sign or a name.
std::optional<std::pair<std::string, std::string>> assignment(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) return std::nullopt;
    return std::pair(text.substr(0, equals), text.substr(equals + 1));
}

// A CLI11 validator: the reason of failure, or an empty text.
std::string configure(Laboratory& laboratory, const Arguments& arguments) {
    for (const std::string& argument : arguments.bags) {
        const auto parts = assignment(argument);
        if (!parts) return "--bag wants NAME=FILE, not '" + argument + "'";
        const auto bag = readPropertyListFile(parts->second);
        if (!bag) return parts->second + ": " + bag.error();
        const Dictionary* content = bag->getIf<Dictionary>();
        if (!content) return parts->second + ": not a dictionary";
        laboratory.setBag(parts->first, *content);
    }
    if (!arguments.signedBags.empty()) laboratory.bags().serveSigned(arguments.signedBags);
    for (const std::string& argument : arguments.bagFaults) {
        const auto parts = assignment(argument);
        const auto fault = parts ? bagFaultNamed(parts->second) : std::nullopt;
        if (!fault) return "--bag-fault wants NAME=FAULT with a known fault, not '" + argument + "'";
        laboratory.bags().setFault(parts->first, *fault);
    }
    const auto fault = reportingFaultNamed(arguments.reportingFault);
    if (!fault) return "--reporting-fault: unknown fault '" + arguments.reportingFault + "'";
    laboratory.reports().setFault(*fault);
    const auto logDataFault = logDataFaultNamed(arguments.logDataFault);
    if (!logDataFault) return "--log-data-fault: unknown fault '" + arguments.logDataFault + "'";
    laboratory.logData().setFault(*logDataFault);
    const auto uploadAnswer = uploadAnswerNamed(arguments.uploadAnswer);
    if (!uploadAnswer) return "--upload-answer: unknown answer '" + arguments.uploadAnswer + "'";
    laboratory.uploads().setAnswer(*uploadAnswer);
    return {};
}

// Writes each uploaded file to a file of its own.
Array writtenUploads(Laboratory& laboratory, const std::filesystem::path& directory) {
    Array written;
    for (const ServerRequest& upload : laboratory.uploads().uploads()) {
        const std::filesystem::path file = directory / "uploads" / std::to_string(written.size() + 1);
        std::error_code ignored;
        std::filesystem::create_directories(file.parent_path(), ignored);
        std::ofstream(file, std::ios::binary) << upload.body;
        written.push_back(Dictionary{{"target", upload.target}, {"file", file.string()}});
    }
    return written;
}

Dictionary summary(Laboratory& laboratory, const std::filesystem::path& directory) {
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
            {"sessions", describeTree(sessionTree(laboratory.reports().events()))},
            {"dashboard", std::move(dashboard)},
            {"logData", Array(uploads.begin(), uploads.end())},
            {"uploads", writtenUploads(laboratory, directory)},
            {"problems", Array(problems.begin(), problems.end())}};
}

// Writes shell lines LAB_NAME='value', with the names in capitals. True if no file was asked for.
bool writeEnvironment(const Dictionary& addresses, const std::string& path) {
    if (path.empty()) return true;
    std::ofstream file(path);
    for (const auto& [key, value] : addresses) {
        const std::string name = asciiUpperCase("LAB_" + key);
        const auto* text = value.getIf<std::string>();
        std::string quoted = text != nullptr ? *text : std::to_string(value.integerValue().value_or(0));
        for (size_t at = 0; (at = quoted.find('\'', at)) != std::string::npos; at += 4)
            quoted.replace(at, 1, "'\\''");
        file << name << "='" << quoted << "'\n";
    }
    file.close();
    return file.good();
}

int serve(const Arguments& arguments) {
    const EndOfRun end;
    auto laboratory =
        Laboratory::make(arguments.directory, {.countByKey = arguments.countByKey}, arguments.collector);
    if (!laboratory) return complain(laboratory.error());
    if (const std::string reason = configure(**laboratory, arguments); !reason.empty())
        return complain(reason);

    const Dictionary addresses{{"bags", (*laboratory)->bags().baseURL()},
                               {"events", (*laboratory)->reports().eventsURL()},
                               {"realtime", (*laboratory)->reports().realtimeURL()},
                               {"logData", (*laboratory)->logData().url()},
                               {"upload", (*laboratory)->uploads().uploadURL()},
                               {"dashboardPort", int{(*laboratory)->dashboard().port()}},
                               {"ca", (*laboratory)->pki().caFile()},
                               {"framework", (*laboratory)->pki().frameworkDirectory()}};
    std::cout << toJson(addresses, false) << std::endl;
    if (!writeEnvironment(addresses, arguments.environmentFile)) {
        return complain(arguments.environmentFile + ": can't be written");
    }
    end.wait(arguments.ignoreInput);
    std::cout << toJson(summary(**laboratory, arguments.directory), true) << std::endl;
    return std::cout.good() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("The servers that telvorad talks to, on this machine, for tests and demonstrations.");
    app.require_subcommand(1);
    CLI::App* serveCommand =
        app.add_subcommand("serve",
                           "Start the servers, print their addresses as one line of JSON, run until SIGTERM, "
                           "SIGINT or the end of standard input, then print all received data as JSON. "
                           "Uploaded files are written to DIR/uploads.");
    serveCommand->add_option("--dir", arguments.directory, "Directory for keys and certificates")->required();
    serveCommand->add_option("--bag", arguments.bags,
                             "NAME=FILE: serve this property list, signed; @events@, @realtime@, @logdata@ "
                             "and @upload@ in its strings stand for the servers' URLs, a string "
                             "@dashboard_port@ for the number of the collector's port");
    serveCommand->add_option("--signed-bags", arguments.signedBags,
                             "DIR: serve the signed documents in it, each under its file's name");
    serveCommand->add_option("--env-file", arguments.environmentFile,
                             "Write the addresses to this file, too, as lines LAB_NAME='value' that a shell "
                             "reads; it may be a FIFO, whose reader then waits for the servers");
    serveCommand->add_option(
        "--bag-fault", arguments.bagFaults,
        "NAME=FAULT: noAnswer, hold, notModified, notFound, truncated, notAPropertyList, unsignedBag, "
        "foreignKey, flippedBit or innerNotAPropertyList");
    serveCommand->add_option("--reporting-fault", arguments.reportingFault,
                             "none, notFound, serviceUnavailable, noAnswer, halfAnswer or hold");
    serveCommand->add_option("--log-data-fault", arguments.logDataFault, "none, emptyAnswer or noAnswer");
    serveCommand->add_option("--upload-answer", arguments.uploadAnswer,
                             "success, failed, notUtf8, empty, halfAnswer, noAnswer or hold");
    addNetworkOptions(*serveCommand, arguments.collector);
    serveCommand->add_option("--count-by", arguments.countByKey,
                             "Do not store events, count them by the number under this key");
    serveCommand->add_flag("--ignore-input", arguments.ignoreInput,
                           "Do not end at the end of standard input");
    CollectArguments collectArguments;
    const CLI::App* collectCommand = addCollectCommand(app, collectArguments);
    if (const auto status = parseCommandLine(app, argc, argv, kUsageError)) return *status;
    return collectCommand->parsed() ? collect(collectArguments) : serve(arguments);
}
