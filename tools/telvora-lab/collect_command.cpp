// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/collect_command.h"

#include <iostream>
#include <mutex>
#include <string>

#include "telvora-lab/end_of_run.h"
#include "telvora-lab/event_json.h"

namespace telvora::lab {
namespace {

void addLinkOptions(CLI::App& command, const std::string& prefix, const std::string& which,
                    LinkFaults& faults) {
    const CLI::Range probability(0.0, 1.0);
    command.add_option("--" + prefix + "-loss", faults.loss, "Probability, 0 to 1, of losing " + which)
        ->check(probability);
    command.add_option("--" + prefix + "-duplicate", faults.duplicate, "Probability of duplicating " + which)
        ->check(probability);
    command
        .add_option("--" + prefix + "-reorder", faults.reorder,
                    "Probability of delaying " + which + " by 50 ms, so that later ones overtake it")
        ->check(probability);
    command.add_option_function<std::pair<int, int>>(
        "--" + prefix + "-delay",
        [&faults](const std::pair<int, int>& bounds) {
            if (bounds.first < 0 || bounds.second < bounds.first) {
                throw CLI::ValidationError("a delay wants MIN and MAX, 0 <= MIN <= MAX");
            }
            faults.minDelay = std::chrono::milliseconds(bounds.first);
            faults.maxDelay = std::chrono::milliseconds(bounds.second);
        },
        "MIN MAX: how many milliseconds " + which + " takes");
}

}  // namespace

void addNetworkOptions(CLI::App& command, CollectorOptions& options) {
    addLinkOptions(command, "datagram", "a dashboard datagram", options.datagrams);
    addLinkOptions(command, "ack", "an acknowledgement", options.acknowledgements);
    command.add_flag("--no-ack{false}", options.acknowledge, "Acknowledge no datagram");
    command.add_option("--seed", options.seed, "Seed of the random sequence of the faults");
}

CLI::App* addCollectCommand(CLI::App& app, CollectArguments& arguments) {
    CLI::App* command = app.add_subcommand(
        "collect",
        "Start the dashboard's collector alone, print its address and then each report that arrives as a "
        "line of JSON, run until SIGTERM, SIGINT or the end of standard input, then print how many of the "
        "reports that were sent have arrived, judged by the event numbers.");
    command->add_option("--listen", arguments.collector.address, "IPv4 address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    command->add_option("--port", arguments.collector.port, "UDP port; 0: the kernel chooses")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    addNetworkOptions(*command, arguments.collector);
    command->add_flag("--quiet", arguments.quiet, "Do not print the reports");
    command->add_flag("--ignore-input", arguments.ignoreInput, "Do not end at the end of standard input");
    return command;
}

int collect(const CollectArguments& arguments) {
    const EndOfRun end;
    CollectorOptions options = arguments.collector;
    options.keepReports = false;
    std::mutex output;
    if (!arguments.quiet) {
        options.onReport = [&output](const DashboardReport& report) {
            const std::lock_guard lock(output);
            std::cout << toJson(describe(report), false) << std::endl;
        };
    }
    std::unique_lock addressFirst(output);
    DashboardCollector collector(options);
    if (!collector.listening()) {
        std::cerr << "telvora-lab: can't listen on " << options.address << " port " << options.port
                  << ": the port is taken, or the address is not one of this machine\n";
        return 2;
    }
    const Dictionary address{{"address", options.address}, {"port", int{collector.port()}}};
    std::cout << toJson(address, false) << std::endl;
    addressFirst.unlock();
    end.wait(arguments.ignoreInput);
    collector.refuse();
    std::cout << toJson(collector.summary(), true) << std::endl;
    return std::cout.good() ? 0 : 1;
}

}  // namespace telvora::lab
