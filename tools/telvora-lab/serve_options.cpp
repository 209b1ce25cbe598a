// SPDX-License-Identifier: Apache-2.0
//
// The command line of "telvora-lab serve".
#include "telvora-lab/collect_command.h"
#include "telvora-lab/serve_command.h"

namespace telvora::lab {
namespace {

constexpr int kLastFirstPort = 65535 - 5;

template <typename Value>
CLI::Validator oneOf() {
    std::vector<std::string> names;
    for (const auto& [name, value] : namedValues<Value>())
        names.emplace_back(name);
    return CLI::IsMember(names);
}

void addFaults(CLI::App& command, ServeArguments& arguments) {
    command.add_option("--bag-fault", arguments.bagFaults,
                       "NAME=FAULT: noAnswer, hold, notModified, notFound, truncated, notAPropertyList, "
                       "unsignedBag, foreignKey, flippedBit or innerNotAPropertyList");
    command.add_option("--reporting-fault", arguments.reportingFault, "The answers to reports")
        ->check(oneOf<ReportingFault>());
    command.add_option("--log-data-fault", arguments.logDataFault, "The answers to log data")
        ->check(oneOf<LogDataFault>());
    command.add_option("--upload-answer", arguments.uploadAnswer, "The answers to uploads of files")
        ->check(oneOf<UploadAnswer>());
    addNetworkOptions(command, arguments.collector);
}

}  // namespace

CLI::App* addServeCommand(CLI::App& app, ServeArguments& arguments) {
    CLI::App* command = app.add_subcommand(
        "serve",
        "Start the servers and a page that shows what arrives, print their addresses, run until SIGTERM, SIGINT "
        "or the end of standard input, then print all received data as JSON. Uploaded files are written to "
        "DIR/uploads.");
    CLI::Option_group* directory = command->add_option_group("Directory");
    directory->add_option("--dir", arguments.directory, "DIR: for keys and certificates, made anew");
    directory->add_option_function<std::string>(
        "--keep",
        [&arguments](const std::string& kept) {
            arguments.directory = kept;
            arguments.keep = true;
        },
        "DIR: the same; its keys, certificates, ports and bags are used again by the next run");
    directory->require_option(1);
    command->add_option("--listen", arguments.listen, "The IPv4 address of the servers and the page")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    command
        ->add_option("--port", arguments.port,
                     "The page's port; the servers' are the next five. 0: kept ports, or the kernel chooses")
        ->check(CLI::Range(0, kLastFirstPort))
        ->capture_default_str();
    command->add_option("--bag", arguments.bags,
                        "NAME=FILE: sign and serve this bag, a property list or JSON; @events@, @realtime@, "
                        "@logdata@ and @upload@ in its strings stand for the servers' URLs, a string "
                        "@dashboard_port@ for the number of the collector's port");
    command->add_option("--signed-bags", arguments.signedBags,
                        "DIR: serve the signed documents in it, each under its file's name");
    command->add_option(
        "--env-file", arguments.environmentFile,
        "Write the addresses to this file, too, as lines LAB_NAME='value' that a shell reads; it "
        "may be a FIFO, whose reader then waits for the servers");
    addFaults(*command, arguments);
    CLI::Option* follow = command->add_flag("--follow", arguments.follow,
                                            "Print each report as it comes, and totals at the end");
    command->add_flag("--json", arguments.json, "With --follow: print lines of JSON")->needs(follow);
    command
        ->add_option("--kept-events", arguments.keptEvents,
                     "How many events to store for the end; the oldest messages are dropped")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command->add_option("--count-by", arguments.countByKey,
                        "Do not store events, count them by the number under this key");
    command->add_flag("--ignore-input", arguments.ignoreInput, "Do not end at the end of standard input");
    return command;
}

}  // namespace telvora::lab
