// SPDX-License-Identifier: Apache-2.0
//
// Sends reports to a dashboard's collector, without a daemon: sessions send no datagrams.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "dashboard/dashboard_backend.h"
#include "output.h"
#include "platform/directories.h"
#include "platform/locale.h"
#include "session_options.h"
#include "telvora/keys.h"

namespace telvora::ctl {

namespace {

// The destination of a dashboard's reports, and their sender.
struct DashboardOptions {
    std::string collector;          // ADDRESS:PORT
    bool unreliable = false;        // as a bag without "reliable"
    std::optional<int64_t> period;  // as a bag with this "reliable", in milliseconds
    int32_t componentType = 0;
    uint32_t sessionID = 1;
    uint16_t clientVersion = 0;
    std::string selfVersion = "1.0";
    std::optional<std::string> deviceID;  // absent: the device's own
    uint16_t firstEventNumber = 1;
    uint32_t count = 1;
    uint32_t interval = 0;  // milliseconds
};

struct Collector {
    std::string address;
    uint16_t port;
};

std::optional<Collector> collectorIn(const std::string& text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    const std::string port = text.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const int number = std::stoi(port);
    if (number < 1 || number > 65535) return std::nullopt;
    return Collector{text.substr(0, colon), static_cast<uint16_t>(number)};
}

// The services of the backend.
struct Outside {
    Directories directories = Directories::fromEnvironment();
    UserDefaults defaults{directories.configuration, directories.state};
    DeviceProperties properties{directories.configuration, defaults};
    DeviceIdentity identity{properties, defaults};
    Environment environment{defaults, identity};
    std::unique_ptr<HttpClient> http = makeCurlHttpClient();
    WorkPool pool{1};
    BackendServices services{.http = *http,
                             .identity = identity,
                             .environment = environment,
                             .defaults = defaults,
                             .clock = timeOfDay,
                             .countryCode = [this] { return identity.countryCode(); },
                             .timeZoneOffsetSeconds = timeZoneOffsetSeconds,
                             .random = [] { return 0.0; },
                             .makeNetworkQueue = [this] { return makeNetworkQueue(pool); }};
};

SharedIdentity identityFrom(const Outside& outside, const DashboardOptions& options) {
    BackendIdentity identity{.sessionID = options.sessionID,
                             .compType = options.componentType,
                             .clientVersion = options.clientVersion,
                             .selfVersion = SelfVersion(options.selfVersion)};
    if (options.deviceID) {
        std::copy_n(options.deviceID->begin(), std::min(options.deviceID->size(), identity.udid.size() - 1),
                    identity.udid.begin());
    } else {
        outside.identity.copyUniqueDeviceID(identity.udid);
    }
    return std::make_shared<const BackendIdentity>(std::move(identity));
}

std::shared_ptr<DashboardBackend> makeBackend(const Outside& outside, const Collector& collector,
                                              const DashboardOptions& options) {
    const std::string name = kTelvoraBackendDashboard;
    SharedIdentity identity = identityFrom(outside, options);
    if (!options.unreliable && !options.period) {
        return DashboardBackend::make(outside.services, name, collector.address, collector.port,
                                      std::move(identity));
    }
    Dictionary profile{{"ip", collector.address}, {"port", int{collector.port}}};
    if (options.period) profile.set("reliable", *options.period);
    return DashboardBackend::make(outside.services, name,
                                  std::make_shared<const PropertyList>(std::move(profile)),
                                  std::move(identity));
}

void addDashboardOptions(CLI::App& command, DashboardOptions& options) {
    command.add_option("--collector", options.collector, "ADDRESS:PORT, IPv4")->required();
    command.add_option("--period", options.period,
                       "Configure like a bag with this \"reliable\": the period of the retransmission timer "
                       "in milliseconds; without, as no bag does: 500 ms");
    command.add_flag("--unreliable", options.unreliable, "Configure like a bag without \"reliable\"")
        ->excludes("--period");
    command.add_option("--component", options.componentType, "Component type")->capture_default_str();
    command.add_option("--session-id", options.sessionID, "Session ID")->capture_default_str();
    command.add_option("--client-version", options.clientVersion, "Client version")->capture_default_str();
    command.add_option("--framework-version", options.selfVersion, "Version of the reporting framework")
        ->capture_default_str();
    command.add_option("--device", options.deviceID,
                       "Device identifier, cut to 40 characters; default: this device's");
    command.add_option("--first-number", options.firstEventNumber, "Event number of the first report")
        ->capture_default_str();
    command.add_option("--count", options.count, "Number of reports")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    command.add_option("--interval", options.interval, "Milliseconds between two reports")
        ->capture_default_str();
}

int runDashboardSend(const DashboardOptions& options, const ReportOptions& report, const Printer& print) {
    const auto given = report.payloadOrNothing();
    if (!given) return fail(kBadInput, given.error());
    const Dictionary payload = given->value_or(Dictionary());
    const auto collector = collectorIn(options.collector);
    if (!collector) return fail(kBadInput, "--collector wants ADDRESS:PORT, not " + options.collector);

    logToStandardError();
    const Outside outside;
    const auto backend = makeBackend(outside, *collector, options);
    if (!backend) return fail(kBadInput, "no way to the collector");

    auto next = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < options.count; ++i) {
        std::this_thread::sleep_until(next);
        next += std::chrono::milliseconds(options.interval);
        const EventID number{static_cast<uint16_t>(options.firstEventNumber + i)};
        print("sent", backend->sendMessage(payload, timeOfDay(), report.category, report.type, number));
    }
    std::promise<void> closed;
    backend->cleanup([&closed] { closed.set_value(); });
    closed.get_future().wait();
    return kDone;
}

}  // namespace

Command addDashboardSendCommand(CLI::App& app, const CommonOptions& common) {
    struct Options {
        DashboardOptions dashboard;
        ReportOptions report;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("dashboard-send", "Send reports to a dashboard's collector");
    command->footer(
        "Sends from this process, without the daemon, whose sessions send no datagrams. Prints each report;\n"
        "ends when all are acknowledged or given up.");
    addDashboardOptions(*command, options->dashboard);
    addReportOptions(*command, options->report);
    return {command, [options, &common] {
                return runDashboardSend(options->dashboard, options->report, Printer(common.json));
            }};
}

}  // namespace telvora::ctl
