// SPDX-License-Identifier: Apache-2.0
//
// telvorad: builds the objects, in an order that matters. The process is confined before it listens, and no
// thread but this one exists before it is confined.
#include <algorithm>
#include <asio/io_context.hpp>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "access/client_files.h"
#include "access/user_quotas.h"
#include "backends/vodex_backend.h"
#include "config/client_framework.h"
#include "config/environment.h"
#include "config/storebag_fetcher.h"
#include "daemon/daemon_status.h"
#include "daemon/in_flight_http_client.h"
#include "daemon/keep_alive_transaction.h"
#include "daemon/listener.h"
#include "daemon/listening_socket.h"
#include "daemon/quality_of_service.h"
#include "daemon/reload.h"
#include "daemon/service_manager.h"
#include "daemon/shutdown.h"
#include "daemon/status_service.h"
#include "daemon/telvorad_agent.h"
#include "platform/descriptor_limit.h"
#include "platform/directories.h"
#include "platform/locale.h"
#include "platform/power_log.h"
#include "platform/system_log.h"
#include "platform/uuid.h"
#include "protocol/status_wire.h"
#include "sandbox/sandbox.h"
#include "session/backend_factory.h"
#include "session/session_status.h"
#include "util/log.h"

namespace telvora {

namespace {

// The name of the service is also that of its sandbox profile.
constexpr char kServiceName[] = "com.zandor.telvorad";
constexpr std::chrono::milliseconds kDefaultShutdownTime = std::chrono::seconds(5);

constexpr std::chrono::milliseconds kMostTime = std::chrono::hours(24);

// A setting in milliseconds, a day at most.
std::chrono::milliseconds milliseconds(UserDefaults& defaults, std::string_view key,
                                       std::chrono::milliseconds otherwise) {
    const int64_t value = defaults.integer(kTelvoraDefaultsDomain, key).value_or(otherwise.count());
    return std::chrono::milliseconds(std::clamp<int64_t>(value, 0, kMostTime.count()));
}

// The directories that clients may have files uploaded from.
std::vector<std::string> uploadDirectories(UserDefaults& defaults) {
    std::vector<std::string> directories;
    const auto value = defaults.administratorValue(kTelvoraDefaultsDomain, "uploadDirectories");
    const Array* array = value ? value->getIf<Array>() : nullptr;
    for (const PropertyList& element : array != nullptr ? *array : Array()) {
        if (const auto* text = element.getIf<std::string>()) directories.push_back(*text);
    }
    return directories;
}

// The shared object of the metrics adaptor.
std::string vodexAdaptorPath(UserDefaults& defaults) {
    const auto value = defaults.administratorValue(kTelvoraDefaultsDomain, "vodexAdaptorPath");
    const auto* path = value ? value->getIf<std::string>() : nullptr;
    return path != nullptr ? *path : VodexBackend::kBundlePath;
}

// Where the daemon is reached: by its clients and, unless that failed, by its administrators.
struct Sockets {
    ListeningSocket clients;
    std::optional<ListeningSocket> status;
};

tl::expected<Sockets, std::string> openSockets(const std::filesystem::path& runtimeDirectory) {
    auto handedOver = takeHandedOverSockets(kTelvoradStatusSocketName);
    if (!handedOver) return tl::unexpected(handedOver.error());
    if (!handedOver->main) {
        auto made = makeListeningSocket(runtimeDirectory / kServiceName);
        if (!made) return tl::unexpected(made.error());
        handedOver->main.emplace(std::move(*made));
    }
    if (!handedOver->other) {
        // The clients' daemon runs on without it.
        auto made = makeListeningSocket(runtimeDirectory / kTelvoradStatusSocketName);
        if (made) {
            handedOver->other.emplace(std::move(*made));
        } else {
            TELVORA_LOG(kLogWarning, "main: no status for administrators: %s", made.error().c_str());
        }
    }
    return Sockets{std::move(*handedOver->main), std::move(handedOver->other)};
}

// Without the folder the daemon runs on, as without its files; a folder that is barred is a mistake of
// whoever set the service up.
bool canRead(const std::filesystem::path& framework) {
    std::error_code error;
    std::filesystem::directory_iterator entries(framework, error);
    if (!error || error == std::errc::no_such_file_or_directory) return true;
    TELVORA_LOG(kLogError, "main: can't read the framework folder %s: %s", framework.c_str(),
                error.message().c_str());
    return false;
}

int readLogLevel(UserDefaults& defaults) {
    const auto level =
        static_cast<int>(defaults.integer(kTelvoraDefaultsDomain, "logLevel").value_or(kLogInfo));
    setLogThreshold(level);
    return level;
}

// Once, at the end.
void logLosses(const ReportLedger& ledger) {
    uint64_t accepted = 0;
    uint64_t lost = 0;
    for (const auto& [name, tally] : ledger.totals()) {
        if (name == ClientAccounts::kAggregator) continue;  // the reports themselves are counted elsewhere
        accepted += tally.accepted;
        lost += failedOrPending(tally);
    }
    if (lost == 0) return;
    TELVORA_LOG(kLogWarning, "main: %llu reports lost of %llu accepted",
                static_cast<unsigned long long>(lost), static_cast<unsigned long long>(accepted));
}

// The daemon proper, in a confined process.
int run(const Directories& directories, UserDefaults& defaults, const MessageLog& messageLog,
        const SandboxPaths& paths, const SandboxStatus& sandbox, const std::string& adaptorPath,
        Sockets sockets) {
    const StartTime start{TelvoradUtil::secondsFromTimeValue(timeOfDay())};
    asio::io_context runLoop(1);
    Shutdown* shutdownWhenIdle = nullptr;  // set below, before anything runs

    const DeviceProperties properties(directories.configuration);
    const DeviceIdentity identity(properties, defaults);
    const Environment environment(defaults, identity);
    const ClientFramework framework(directories.framework);
    const EntitlementStore entitlements(directories.configuration);
    const auto countryCode = [] { return currentCountryCode(); };

    UserQuotas quotas(defaults);
    std::unique_ptr<HttpClient> curl = makeCurlHttpClient();
    WorkPool pool(std::clamp(std::thread::hardware_concurrency(), 2U, 4U));
    UploadAdmission uploads;
    const std::unique_ptr<PowerLog> powerLog = makeJournalPowerLog();
    ReportLedger ledger;
    InFlightHttpClient http(*curl, [&] { shutdownWhenIdle->check(); });

    const BackendServices backendServices{http,
                                          identity,
                                          environment,
                                          defaults,
                                          timeOfDay,
                                          countryCode,
                                          timeZoneOffsetSeconds,
                                          uniformRandom48,
                                          [&pool] { return makeNetworkQueue(pool); },
                                          adaptorPath,
                                          powerLog.get()};
    const BackendFactory factory(backendServices);
    const SessionServices sessionServices{{factory, identity, framework, timeOfDay},
                                          identity,
                                          framework,
                                          defaults,
                                          messageLog,
                                          timeOfDay,
                                          countryCode,
                                          uploads,
                                          ledger,
                                          paths.readAndRemove};
    const StorebagFetcher fetcher({http, environment, framework});
    KeepAliveTransaction keepAlive(
        runLoop, {.launchedOnDemand = sockets.clients.fromServiceManager,
                  .inFlight = [&] { return http.inFlight() > 0; },
                  .onIdle = [&] { shutdownWhenIdle->begin(); },
                  .idleTime = milliseconds(defaults, "idleMilliseconds", kDefaultIdleTime)});
    TelvoradAgent agent({entitlements, fetcher, sessionServices, quotas, keepAlive, timeOfDay,
                         [&] { shutdownWhenIdle->check(); }});
    uint64_t connectionCount = 0;
    Listener listener(runLoop, std::move(sockets.clients.socket), [&](UniqueFd socket, const Peer& peer) {
        const std::string description =
            "#" + std::to_string(++connectionCount) + " from " + peer.description();
        const auto connection = ClientConnection::make(pool.makeStrand(), std::move(socket), description);
        if (!agent.listener(connection, peer)) connection->invalidate();
    });
    StatusService status({[&] {
                              return Dictionary{{"daemon", daemonStatus(start)},
                                                {"sandbox", sandboxStatus(sandbox)},
                                                {"sessions", agent.sessionStatus()},
                                                {"users", userStatus(quotas)},
                                                {"bags", agent.storebagStatus()},
                                                {"totals", describe(ledger.totals())},
                                                {"httpPending", static_cast<long long>(http.inFlight())}};
                          },
                          [&] { return properties.all(); }},
                         quotas);
    std::optional<Listener> statusListener;
    if (sockets.status) {
        statusListener.emplace(runLoop, std::move(sockets.status->socket),
                               [&](UniqueFd socket, const Peer& peer) {
                                   status.accept(pool.makeStrand(), std::move(socket), peer);
                               });
    }
    Shutdown shutdown(runLoop,
                      {[&] {
                           notifyServiceManager("STOPPING=1");
                           listener.close();
                           if (statusListener) statusListener->close();
                       },
                       [&] { agent.invalidateAllConnections(); },
                       [&] { return agent.sessionsAlive() == 0 && http.inFlight() == 0; }},
                      milliseconds(defaults, "shutdownMilliseconds", kDefaultShutdownTime));
    shutdownWhenIdle = &shutdown;

    // All other settings are read anew whenever they are used.
    const Reload reload(runLoop, [&] {
        const int level = readLogLevel(defaults);
        TELVORA_LOG(kLogInfo, "main: Logging up to level %d", level);
    });
    shutdown.onSignals();
    listener.resume();
    if (statusListener) statusListener->resume();
    TELVORA_LOG(kLogInfo, "main: Listener resumes with sandbox, start loop.");
    notifyServiceManager("READY=1");
    runLoop.run();

    logLosses(ledger);
    quotas.tellRefusals();
    if (agent.sessionsAlive() > 0) {
        // Their deadline is over, and what they wait for, a server or an adaptor, may never come.
        stopLogging();
        std::_Exit(0);
    }
    // What still runs uses the objects above: it ends before they do, and waits for no server any more.
    uploads.close();
    http.stop();
    pool.stop();
    curl.reset();
    return 0;
}

}  // namespace

}  // namespace telvora

int main() {
    using namespace telvora;
    std::signal(SIGPIPE, SIG_IGN);
    setUtilityQualityOfService();
    startLogging("telvorad");
    raiseDescriptorLimit();

    const Directories directories = Directories::fromEnvironment();
    UserDefaults defaults(directories.configuration, directories.state);
    readLogLevel(defaults);

    const MessageLog messageLog(directories.logs);
    TelvoradUtil::makeLogDirectory(messageLog);
    SandboxPaths paths = SandboxPaths::fromDirectories(directories);
    paths.readAndRemove = canonicalDirectories(uploadDirectories(defaults));
    const std::string adaptorPath = vodexAdaptorPath(defaults);
    // A path that names a directory must not open all that is beneath it.
    if (std::error_code error; std::filesystem::is_regular_file(adaptorPath, error))
        paths.readOnly.push_back(adaptorPath);
    const auto confined = enterSandbox(kServiceName, paths);
    if (!confined) {
        TELVORA_LOG(kLogError, "main: sandbox_init() fails: %s\n", confined.error().c_str());
        return -1;
    }
    if (!canRead(directories.framework)) return 1;
    auto sockets = openSockets(directories.runtime);
    if (!sockets) {
        TELVORA_LOG(kLogError, "main: can't listen: %s", sockets.error().c_str());
        return 1;
    }
    // The sockets were all that had to listen.
    if (const auto tightened = tightenSandbox(kServiceName); !tightened) {
        TELVORA_LOG(kLogError, "main: sandbox_init() fails: %s\n", tightened.error().c_str());
        return -1;
    }
    const int status =
        run(directories, defaults, messageLog, paths, *confined, adaptorPath, std::move(*sockets));
    stopLogging();
    return status;
}
