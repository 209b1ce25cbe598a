// SPDX-License-Identifier: Apache-2.0
#include "service.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "process_figures.h"
#include "telvora/keys.h"
#include "tests/support/await.h"
#include "tests/support/bags.h"
#include "world.h"

namespace telvora::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kNever = int64_t{24} * 3600 * 1000;  // milliseconds
constexpr size_t kIdleSessions[] = {0, 1, 100};

Dictionary spread(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {{"least", values.front()}, {"median", values[values.size() / 2]}, {"most", values.back()}};
}

// From before the process is made, and its preferences are written, until the daemon logs that it listens.
Dictionary startTimes(const World& world, size_t starts) {
    std::vector<double> times;
    for (size_t i = 0; i < starts; ++i) {
        const auto begin = Clock::now();
        const auto daemon = world.start();
        times.push_back(millisecondsSince(begin));
        if (daemon->stop() != 0) throw std::runtime_error("the daemon does not end when told");
    }
    return spread(std::move(times));
}

// From a client's connection, which starts the daemon, to the acknowledgement of its first report.
double activationTime(const World& world) {
    const auto daemon = world.launch([](test::DaemonOptions& options) {
        options.socketActivation = true;
        options.defaults.set("idleMilliseconds", 100);
    });
    if (!daemon->waitUntilActivatable()) throw std::runtime_error("the daemon's socket does not listen");
    ClientRuntime runtime;
    const auto begin = Clock::now();
    auto session = openSession(runtime, daemon->socketPath(), {{kTelvoraSessionInfoSessionID, 1}});
    const Dictionary payload{{kNumberKey, 1}};
    test::await<std::optional<std::string>>(
        [&](auto done) { session->sendMessage(1, 1, payload, std::move(done)); });
    const double time = millisecondsSince(begin);
    session.reset();
    if (daemon->waitForExit() != 0) throw std::runtime_error("the daemon does not end when idle");
    return time;
}

Dictionary activationTimes(const World& world, size_t starts) {
    const double fetched = activationTime(world);
    std::vector<double> times;
    for (size_t i = 0; i < starts; ++i)
        times.push_back(activationTime(world));
    return {{"bagFetched", fetched}, {"bagCached", spread(std::move(times))}};
}

// A daemon with idle sessions.
class Idler {
  public:
    explicit Idler(size_t sessions)
        : world_(test::openBag()),
          daemon_(world_.start([](auto& options) { options.defaults.set("idleMilliseconds", kNever); })) {
        for (size_t i = 0; i < sessions; ++i) {
            sessions_.push_back(
                openSession(runtime_, daemon_->socketPath(), {{kTelvoraSessionInfoSessionID, i}}));
        }
    }

    void begin() { wakeupsBefore_ = wakeupsOf(daemon_->pid()); }
    Dictionary figures(double minutes) const {
        const int64_t woken = wakeupsSince(wakeupsBefore_, wakeupsOf(daemon_->pid()));
        const Memory memory = memoryOf(daemon_->pid());
        return {{"sessions", sessions_.size()},
                {"wakeupsPerMinute", static_cast<double>(woken) / minutes},
                {"rssKiB", memory.rssKiB},
                {"pssKiB", memory.pssKiB}};
    }

  private:
    World world_;
    std::unique_ptr<test::DaemonProcess> daemon_;
    ClientRuntime runtime_;
    std::vector<std::unique_ptr<ClientSession>> sessions_;
    Wakeups wakeupsBefore_;
};

// All are measured at the same time, so that ten minutes are spent only once.
Array idleFigures(double minutes) {
    std::vector<std::unique_ptr<Idler>> idlers;
    for (const size_t sessions : kIdleSessions)
        idlers.push_back(std::make_unique<Idler>(sessions));
    for (const auto& idler : idlers)
        idler->begin();
    std::this_thread::sleep_for(std::chrono::duration<double, std::ratio<60>>(minutes));
    Array figures;
    for (const auto& idler : idlers)
        figures.push_back(idler->figures(minutes));
    return figures;
}

}  // namespace

Dictionary measureService(const ServiceOptions& options) {
    const World world(test::openBag());
    return {{"startMilliseconds", startTimes(world, options.starts)},
            {"activationMilliseconds", activationTimes(world, options.starts)},
            {"idleMinutes", options.idleMinutes},
            {"idle", idleFigures(options.idleMinutes)}};
}

}  // namespace telvora::bench
