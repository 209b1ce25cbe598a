// SPDX-License-Identifier: Apache-2.0
//
// telvora-bench: sends reports through the real daemon to an HTTPS server, each with an acknowledgement, and
// prints the figures as JSON to standard output. Exits with status 0 if each report arrived exactly once.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "attacks.h"
#include "canary.h"
#include "completion/program.h"
#include "load.h"
#include "peers.h"
#include "platform/descriptor_limit.h"
#include "process_figures.h"
#include "profile.h"
#include "sending.h"
#include "service.h"
#include "sessions.h"
#include "soak.h"
#include "telvora-lab/event_json.h"
#include "tests/support/bags.h"
#include "world.h"

namespace telvora::bench {
namespace {

struct Options {
    LoadOptions load;
    int64_t eventThreshold = 49;
    bool overrideConsent = false;
    double idleSeconds = 1;
    std::string profile;  // path of the profile's table; empty: none
};

Dictionary benchBag(const Options& options) {
    Dictionary entry = test::openClientEntry();
    entry.set("event_threshold", options.eventThreshold);
    if (options.overrideConsent) entry.set("override_dnu", 1);
    return test::bagWithClients({entry});
}

struct Figures {
    Memory idle;         // before the first connection
    double idleWakeups;  // per second
    Memory connected;    // all sessions are open, no report was sent
    Memory loaded;       // all reports were sent
    double cpuSeconds;   // from the first report until the last arrival
    double deliverySeconds;
};

Figures measure(const Options& options, lab::Laboratory& laboratory, const test::DaemonProcess& daemon,
                Load& load) {
    Figures figures{};
    figures.idle = memoryOf(daemon.pid());
    const Wakeups wakeupsBefore = wakeupsOf(daemon.pid());
    std::this_thread::sleep_for(std::chrono::duration<double>(options.idleSeconds));
    figures.idleWakeups = static_cast<double>(wakeupsSince(wakeupsBefore, wakeupsOf(daemon.pid()))) /
                          std::max(options.idleSeconds, 0.001);

    load.open(daemon.socketPath());
    figures.connected = memoryOf(daemon.pid());
    std::optional<Profile> profile;
    if (!options.profile.empty()) profile.emplace(daemon.pid());
    const double cpuBefore = cpuSeconds(daemon.pid());
    const auto begin = std::chrono::steady_clock::now();
    load.run();
    load.flush();
    laboratory.reports().waitForEvents(options.load.reports, test::kPatience);
    figures.deliverySeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    figures.cpuSeconds = cpuSeconds(daemon.pid()) - cpuBefore;
    figures.loaded = memoryOf(daemon.pid());
    if (profile) profile->write(options.profile);
    return figures;
}

Dictionary memoryFigures(const Memory& memory) {
    return {{"rssKiB", memory.rssKiB}, {"pssKiB", memory.pssKiB}};
}

Dictionary latencyFigures(const Load& load) {
    return {{"p50", load.latencyMicroseconds(0.5)},
            {"p90", load.latencyMicroseconds(0.9)},
            {"p99", load.latencyMicroseconds(0.99)},
            {"p99.9", load.latencyMicroseconds(0.999)},
            {"max", load.latencyMicroseconds(1)}};
}

Dictionary describe(const Options& options, const lab::ReportingServer& reports, const Figures& figures,
                    const Load& load) {
    const auto count = static_cast<double>(options.load.reports);
    return {{"reports", options.load.reports},
            {"clients", options.load.clients},
            {"window", options.load.window},
            {"scheduledPerSecond", options.load.rate},
            {"entries", options.load.record.size() + 1},
            {"clientThreads", options.load.threads},
            {"eventThreshold", options.eventThreshold},
            {"messagesAlsoLogged", !options.overrideConsent},
            {"reportsPerSecond", count / load.duration().count()},
            {"deliveredPerSecond", count / figures.deliverySeconds},
            {"daemonCpuMicrosecondsPerReport", figures.cpuSeconds * 1e6 / count},
            {"acknowledgementMicroseconds", latencyFigures(load)},
            {"idle", memoryFigures(figures.idle)},
            {"idleWakeupsPerSecond", figures.idleWakeups},
            {"connected", memoryFigures(figures.connected)},
            {"loaded", memoryFigures(figures.loaded)},
            {"peakRssKiB", figures.loaded.peakRssKiB},
            {"messages", reports.messageCount()},
            {"arrived", reports.distinctCount()},
            {"arrivedTwice", reports.duplicateCount()}};
}

int run(const Options& options) {
    World world(benchBag(options));
    const auto daemon = world.start();
    Load load(options.load);
    const Figures figures = measure(options, world.laboratory(), *daemon, load);
    const lab::ReportingServer& reports = world.laboratory().reports();
    std::cout << lab::toJson(describe(options, reports, figures, load), true) << std::endl;
    for (const std::string& problem : reports.problems())
        std::cerr << problem << '\n';
    for (const std::string& line : daemon->logLines())
        if (line.starts_with("<3>") || line.starts_with("<4>")) std::cerr << line << '\n';
    return reports.distinctCount() == options.load.reports && reports.duplicateCount() == 0 &&
                   reports.problems().empty()
               ? 0
               : 1;
}

}  // namespace
}  // namespace telvora::bench

int main(int argc, char** argv) {
    constexpr int kUsageError = 2;
    if (const auto status = telvora::bench::runAsPeer({argv, argv + argc})) return *status;
    telvora::bench::Options options;
    telvora::bench::SessionsOptions sessions;
    CLI::App app("Sends reports through the real daemon to an HTTPS server and prints the figures as JSON.");
    app.option_defaults()->always_capture_default();
    app.add_option("--reports", options.load.reports, "Reports over all clients")
        ->check(CLI::Range(1, 50'000'000));
    app.add_option("--clients", options.load.clients, "Clients, one connection each")
        ->check(CLI::Range(1, 20'000));
    app.add_option("--window", options.load.window, "Unacknowledged reports per client")
        ->check(CLI::Range(1, 16'000));
    app.add_option(
           "--rate", options.load.rate,
           "Reports per second, sent on schedule whatever the answers do (open loop); 0: as fast as the "
           "window allows")
        ->check(CLI::Range(0.0, 10e6));
    const std::map<std::string, bool> records{{"short", false}, {"peers", true}};
    bool peers = false;
    app.add_option("--record", peers, "The payload of a report: of six entries, or of ten")
        ->transform(CLI::CheckedTransformer(records))
        ->default_str("short");
    app.add_option("--profile", options.profile,
                   "Write to this file where the daemon's processor time went, by perf(1)");
    app.add_option("--client-threads", options.load.threads, "Threads of the clients")
        ->check(CLI::Range(1, 64));
    app.add_option(
        "--event-threshold", options.eventThreshold,
        "The bag's \"event_threshold\": a batch is sent when it holds one more report of a category");
    app.add_flag("--override-consent", options.overrideConsent,
                 "A bag with \"override_dnu\": messages are then not copied to the message log");
    app.add_option("--idle-seconds", options.idleSeconds,
                   "Seconds in which wake-ups of the idle daemon are counted");
    CLI::App* sessionsMode = app.add_subcommand(
        "sessions", "Measure many simultaneous sessions, standalone and in hierarchies of ten.");
    sessionsMode->add_option("--count", sessions.counts, "Concurrent sessions; repeatable")
        ->default_val(std::vector<size_t>{1000, 10'000})
        ->check(CLI::Range(10, 100'000));
    sessionsMode->add_option("--reports", sessions.reports, "Reports per measurement of their cost")
        ->check(CLI::Range(100, 10'000'000));
    telvora::bench::SendingOptions sending;
    CLI::App* clientMode =
        app.add_subcommand("client", "Measure the cost of sending with libtelvora, in a process of its own.");
    clientMode->add_option("--reports", sending.reports, "Reports over all threads")
        ->check(CLI::Range(1, 50'000'000));
    clientMode->add_option("--threads", sending.threads, "Threads that send on one session; repeatable")
        ->default_val(std::vector<size_t>{1, 4})
        ->check(CLI::Range(1, 1000));
    telvora::bench::ServiceOptions service;
    CLI::App* serviceMode =
        app.add_subcommand("service", "Measure the daemon's start time, and its cost while idle.");
    serviceMode->add_option("--starts", service.starts, "Starts, directly and by a connection")
        ->check(CLI::Range(1, 1000));
    serviceMode
        ->add_option("--idle-minutes", service.idleMinutes, "Minutes in which idle daemons are observed")
        ->check(CLI::Range(0.01, 1440.0));
    telvora::bench::SoakOptions soak;
    CLI::App* soakMode =
        app.add_subcommand("soak", "Compare all books of reports under kills, faults and attacks.");
    soakMode->add_option("--seconds", soak.seconds, "Seconds of the run")->check(CLI::Range(10.0, 1e6));
    soakMode
        ->add_option("--reports", soak.reports, "End after so many reports have arrived instead; 0: do not")
        ->check(CLI::Range(0, 1'000'000'000));
    soakMode->add_option("--seed", soak.seed, "Decides on the order of all disturbances");
    soakMode->add_flag("--verbose", soak.verbose, "Print each disturbance to standard error");
    telvora::bench::CanaryOptions canary;
    CLI::App* canaryMode =
        app.add_subcommand("canary", "Measure a client's service during attacks by another user.");
    std::vector<std::string> names;
    for (const telvora::bench::Attack& attack : telvora::bench::allAttacks())
        names.emplace_back(attack.name);
    canaryMode->add_option("--attack", canary.attacks, "One attack only; repeatable")
        ->check(CLI::IsMember(names));
    canaryMode->add_option("--seconds", canary.seconds, "Seconds of each measurement")
        ->check(CLI::Range(0.5, 3600.0));
    if (const auto status = telvora::parseCommandLine(app, argc, argv, kUsageError)) return *status;
    if (peers) options.load.record = telvora::bench::kPeersRecord;
    telvora::raiseDescriptorLimit();
    try {
        if (*sessionsMode) {
            std::cout << telvora::lab::toJson(telvora::bench::measureSessions(sessions), true) << std::endl;
            return 0;
        }
        if (*clientMode) {
            std::cout << telvora::lab::toJson(telvora::bench::measureSending(sending), true) << std::endl;
            return 0;
        }
        if (*serviceMode) {
            std::cout << telvora::lab::toJson(telvora::bench::measureService(service), true) << std::endl;
            return 0;
        }
        if (*soakMode) return telvora::bench::soak(soak);
        if (*canaryMode) return telvora::bench::measureCanary(canary);
        return telvora::bench::run(options);
    } catch (const std::exception& error) {
        std::cerr << "telvora-bench: " << error.what() << '\n';
        return 1;
    }
}
