// SPDX-License-Identifier: Apache-2.0
//
// Reports to a dashboard's collector, without a daemon: sessions don't use this way of sending.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

#include "backends/dashboard_backend.h"
#include "commands.h"
#include "json.h"
#include "platform/directories.h"
#include "platform/locale.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora::ctl {

namespace {

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

// Everything that a backend uses of the outside.
struct Outside {
    Directories directories = Directories::fromEnvironment();
    UserDefaults defaults{directories.configuration, directories.state};
    DeviceProperties properties{directories.configuration};
    DeviceIdentity identity{properties, defaults};
    Environment environment{defaults, identity};
    std::unique_ptr<HttpClient> http = makeCurlHttpClient();
    WorkPool pool{1};
    BackendServices services{*http,
                             identity,
                             environment,
                             defaults,
                             timeOfDay,
                             [] { return currentCountryCode(); },
                             timeZoneOffsetSeconds,
                             [] { return 0.0; },
                             [this] { return makeNetworkQueue(pool); }};
};

std::shared_ptr<DashboardBackend> makeBackend(const Outside& outside, const Collector& collector,
                                              const DashboardOptions& options) {
    const std::string name = kTelvoraBackendDashboard;
    if (!options.unreliable && !options.period) {
        return DashboardBackend::make(outside.services, name, collector.address, collector.port,
                                      std::nullopt);
    }
    Dictionary profile{{"ip", collector.address}, {"port", int{collector.port}}};
    if (options.period) profile.set("reliable", *options.period);
    return DashboardBackend::make(outside.services, name,
                                  std::make_shared<const PropertyList>(std::move(profile)), std::nullopt);
}

void setIdentity(DashboardBackend& backend, const Outside& outside, const DashboardOptions& options) {
    backend.setCompType(options.componentType);
    backend.setSessionID(options.sessionID);
    backend.setClientVersion(options.clientVersion);
    backend.setSelfVersion(options.selfVersion);
    DeviceIDBuffer udid{};
    if (options.deviceID) {
        std::copy_n(options.deviceID->begin(), std::min(options.deviceID->size(), udid.size() - 1),
                    udid.begin());
    } else {
        outside.identity.copyUniqueDeviceID(udid);
    }
    backend.setUdid(udid);
}

void printLogLine(int /*level*/, std::string_view line) {
    std::fprintf(stderr, "telvoractl: %.*s\n", static_cast<int>(line.size()), line.data());
}

}  // namespace

int runDashboardSend(const DashboardOptions& options, const ReportOptions& report) {
    const auto payload = payloadOf(report);
    if (!payload) return fail(kBadInput, payload.error());
    const auto collector = collectorIn(options.collector);
    if (!collector) return fail(kBadInput, "--collector wants ADDRESS:PORT, not " + options.collector);

    setLogThreshold(kLogWarning);
    setLogSink(printLogLine);
    const Outside outside;
    const auto backend = makeBackend(outside, *collector, options);
    if (!backend) return fail(kBadInput, "no way to the collector");
    setIdentity(*backend, outside, options);

    auto next = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < options.count; ++i) {
        std::this_thread::sleep_until(next);
        next += std::chrono::milliseconds(options.interval);
        const EventID number{static_cast<uint16_t>(options.firstEventNumber + i)};
        printLine("sent", backend->sendMessage(*payload, timeOfDay(), report.category, report.type, number));
    }
    std::promise<void> closed;
    backend->cleanup([&closed] { closed.set_value(); });
    closed.get_future().wait();
    return kDone;
}

}  // namespace telvora::ctl
