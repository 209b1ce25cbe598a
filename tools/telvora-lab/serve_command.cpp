// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/serve_command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iostream>
#include <optional>
#include <utility>

#include "telvora-bag/documents.h"
#include "telvora-lab/end_of_run.h"
#include "telvora-lab/event_json.h"
#include "telvora-lab/follow.h"
#include "telvora-lab/kept_state.h"
#include "telvora-lab/page/page_server.h"
#include "telvora-lab/summary.h"
#include "util/ascii.h"
#include "util/error_text.h"
#include "util/unique_fd.h"
#include "util/utf8.h"

namespace telvora::lab {
namespace {

constexpr int kUsageError = 2;
// Of files that the end of the run writes to the directory, and likewise of log data.
constexpr size_t kKeptBytes = size_t{256} << 20;
constexpr unsigned kSecondsForTheLastLines = 5;

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

Ports portsFrom(int first) {
    return {.bags = first + 1,
            .reports = first + 2,
            .logData = first + 3,
            .uploads = first + 4,
            .dashboard = first + 5};
}

// Bags and faults of the command line. The reason of failure, or an empty text.
std::string configure(Laboratory& laboratory, const ServeArguments& arguments) {
    for (const std::string& argument : arguments.bags) {
        const auto parts = assignment(argument);
        if (!parts) return "--bag wants NAME=FILE, not '" + argument + "'";
        if (!isBagName(parts->first) && parts->first != "(null)")
            return "--bag: '" + parts->first + "' can't be the name of a bag";
        const auto bag = bag::readBag(parts->second);
        if (!bag) return bag.error();
        if (arguments.keep) {
            const auto kept = writeKeptBag(arguments.directory, parts->first, *bag);
            if (!kept) return kept.error();
        }
        laboratory.setBag(parts->first, *bag);
    }
    if (!arguments.signedBags.empty()) {
        if (!std::filesystem::is_directory(arguments.signedBags)) {
            return "--signed-bags: " + arguments.signedBags + " is no directory";
        }
        laboratory.bags().serveSigned(arguments.signedBags);
    }
    for (const std::string& argument : arguments.bagFaults) {
        const auto parts = assignment(argument);
        const auto fault = parts ? valueNamed<BagFault>(parts->second) : std::nullopt;
        if (!fault) return "--bag-fault wants NAME=FAULT with a known fault, not '" + argument + "'";
        laboratory.bags().setFault(parts->first, *fault);
    }
    laboratory.reports().setFault(valueNamed<ReportingFault>(arguments.reportingFault).value());
    laboratory.logData().setFault(valueNamed<LogDataFault>(arguments.logDataFault).value());
    laboratory.uploads().setAnswer(valueNamed<UploadAnswer>(arguments.uploadAnswer).value());
    return {};
}

Dictionary addressesOf(Laboratory& laboratory, const PageServer& page) {
    return {{"page", page.url()},
            {"bags", laboratory.bags().baseURL()},
            {"events", laboratory.reports().eventsURL()},
            {"realtime", laboratory.reports().realtimeURL()},
            {"logData", laboratory.logData().url()},
            {"upload", laboratory.uploads().uploadURL()},
            {"dashboardPort", int{laboratory.dashboard().port()}},
            {"ca", laboratory.pki().caFile()},
            {"framework", laboratory.pki().frameworkDirectory()}};
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

void printAddresses(const Dictionary& addresses, bool forPeople) {
    if (!forPeople) {
        std::cout << toJson(addresses, false) << std::endl;
        return;
    }
    for (const auto& [key, value] : addresses) {
        const auto* text = value.getIf<std::string>();
        std::cout << fmt::format("{:14} {}\n", key, text != nullptr ? *text : toJson(value, false));
    }
    std::cout << std::endl;
}

void printTotals(Laboratory& laboratory, bool json) {
    const ReportingServer& reports = laboratory.reports();
    const auto problems = reports.problems();
    if (json) {
        const Dictionary totals{{"kind", "end"},
                                {"messages", reports.messageCount()},
                                {"reports", reports.eventCount()},
                                {"problems", Array(problems.begin(), problems.end())}};
        std::cout << toJson(totals, false) << std::endl;
        return;
    }
    std::cout << fmt::format("{} reports in {} messages\n", reports.eventCount(), reports.messageCount());
    for (const std::string& problem : problems)
        std::cout << "problem: " << escapeControlCharacters(problem) << '\n';
    std::cout.flush();
}

// Makes the directory, and keeps other laboratories out of it for as long as the descriptor is open: they
// would replace its keys.
tl::expected<UniqueFd, std::string> lockDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) return tl::unexpected(errorText(directory.string(), errno));
    if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
    return tl::unexpected(directory.string() + ": another telvora-lab uses this directory");
}

tl::expected<std::unique_ptr<Laboratory>, std::string> startLaboratory(const ServeArguments& arguments,
                                                                       const KeptState& kept, Feed& feed) {
    LaboratoryOptions options;
    options.reporting.countByKey = arguments.countByKey;
    options.reporting.keptEvents = arguments.follow ? 0 : arguments.keptEvents;
    options.keptBytes = arguments.follow ? 0 : kKeptBytes;
    options.collector = arguments.collector;
    options.address = arguments.listen;
    options.ports = arguments.port != 0 ? portsFrom(arguments.port) : kept.ports;
    options.keepKeys = arguments.keep;
    options.feed = &feed;
    auto laboratory = Laboratory::make(arguments.directory, std::move(options));
    if (!laboratory) return laboratory;
    for (const auto& [name, bag] : kept.bags)
        (*laboratory)->setBag(name, bag);
    if (const std::string reason = configure(**laboratory, arguments); !reason.empty()) {
        return tl::unexpected(reason);
    }
    return laboratory;
}

}  // namespace

int serve(const ServeArguments& given) {
    const EndOfRun end;
    ServeArguments arguments = given;
    arguments.directory = std::filesystem::absolute(given.directory);
    const auto lock = lockDirectory(arguments.directory);
    if (!lock) return complain(lock.error());
    KeptState state;
    if (arguments.keep) {
        auto kept = readKeptState(arguments.directory);
        if (!kept) return complain(kept.error());
        state = std::move(*kept);
    }
    if (arguments.listen == "0.0.0.0") return complain("--listen wants one address of this machine");
    if (!isLoopback(arguments.listen)) {
        complain(arguments.listen +
                 " is not a loopback address: other machines reach the servers, and whoever "
                 "knows the page's address sees all reports");
    }
    Feed feed;
    const auto laboratory = startLaboratory(arguments, state, feed);
    if (!laboratory) return complain(laboratory.error());
    Laboratory& lab = **laboratory;

    if (state.token.empty()) state.token = makePageToken();
    PageOptions options{.address = arguments.listen,
                        .port = arguments.port != 0 ? arguments.port : state.pagePort,
                        .token = state.token,
                        .keepBag = {}};
    if (arguments.keep) {
        options.keepBag = [&arguments](const std::string& name, const Dictionary& bag) {
            return writeKeptBag(arguments.directory, name, bag);
        };
    }
    const PageServer page(lab, feed, std::move(options));
    if (!page.listening()) return complain(cannotListen(arguments.listen, arguments.port));
    if (arguments.keep) {
        state.ports = lab.ports();
        state.pagePort = page.port();
        if (auto kept = writeKeptState(arguments.directory, state); !kept) return complain(kept.error());
    }

    const Dictionary addresses = addressesOf(lab, page);
    printAddresses(addresses, arguments.follow && !arguments.json);
    if (!writeEnvironment(addresses, arguments.environmentFile)) {
        return complain(errorText(arguments.environmentFile + ": can't be written", errno));
    }
    if (arguments.follow) {
        {
            const Follower follower(feed, std::cout, arguments.json, [] { kill(getpid(), SIGTERM); });
            end.wait(arguments.ignoreInput);
            // A reader of the output that has stopped must not keep the laboratory from ending.
            std::signal(SIGALRM, [](int) { _exit(1); });
            alarm(kSecondsForTheLastLines);
        }
        printTotals(lab, arguments.json);
    } else {
        end.wait(arguments.ignoreInput);
        std::cout << toJson(summaryOf(lab, arguments.directory), true) << std::endl;
    }
    if (std::cout.good()) return 0;
    complain("standard output can't be written");
    return 1;
}

}  // namespace telvora::lab
