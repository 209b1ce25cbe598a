// SPDX-License-Identifier: Apache-2.0
#include "canary.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "attacks.h"
#include "peers.h"
#include "process_figures.h"
#include "telvora/keys.h"
#include "tests/support/await.h"
#include "tests/support/bags.h"
#include "world.h"

namespace telvora::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kServersNice = 5;
constexpr std::chrono::milliseconds kReportEvery{20};
constexpr std::chrono::milliseconds kSessionEvery{100};

// In milliseconds: of reports, from the time at which one is due to its acknowledgement; the longest start of
// a session, with its configuration; the longest flush, until the server has answered.
struct Service {
    enum Figure { kMedian, kP99, kWorst, kSession, kDelivery };
    static constexpr size_t kFigures = kDelivery + 1;
    double figures[kFigures] = {};
};

void report(ClientSession& session) {
    const Dictionary payload{{"codec", "av1"}, {"bitrate", 4200}};
    test::await<std::optional<std::string>>(
        [&](auto done) { session.sendMessage(4, 1, payload, std::move(done)); });
}

// Opens sessions, reports and flushes, until the process ends.
class Visitor {
  public:
    void visit(const std::string& socketPath) {
        ClientRuntime runtime;
        for (auto due = Clock::now();; due = std::max(due + kSessionEvery, Clock::now())) {
            std::this_thread::sleep_until(due);
            begin(Service::kSession);
            const auto session = openSession(runtime, socketPath, {{kTelvoraSessionInfoSessionID, 1}});
            end();
            report(*session);
            begin(Service::kDelivery);
            test::await<FlushAnswer>([&](auto done) { session->flushMessages(std::move(done)); });
            end();
        }
    }
    // Enters the longest times so far, those of unfinished operations included.
    void describe(Service& service) {
        const std::lock_guard lock(lock_);
        finish();
        std::copy(std::begin(longest_), std::end(longest_), service.figures + Service::kSession);
    }

  private:
    void begin(Service::Figure operation) {
        const std::lock_guard lock(lock_);
        operation_ = operation;
        begin_ = Clock::now();
    }
    void end() {
        const std::lock_guard lock(lock_);
        finish();
        operation_.reset();
    }
    void finish() {
        if (!operation_) return;
        double& longest = longest_[*operation_ - Service::kSession];
        longest = std::max(longest, millisecondsSince(begin_));
    }

    std::mutex lock_;
    std::optional<Service::Figure> operation_;
    Clock::time_point begin_;
    double longest_[2] = {};
};

// A report every few milliseconds. A stall delays all reports that fall due meanwhile.
void sendReports(ClientSession& session, double seconds, Service& service) {
    std::vector<double> latencies;
    const auto begin = Clock::now();
    for (auto due = begin; millisecondsSince(begin) < seconds * 1000; due += kReportEvery) {
        std::this_thread::sleep_until(due);
        report(session);
        latencies.push_back(millisecondsSince(due));
    }
    std::sort(latencies.begin(), latencies.end());
    service.figures[Service::kMedian] = latencies[latencies.size() / 2];
    service.figures[Service::kP99] = latencies[latencies.size() * 99 / 100];
    service.figures[Service::kWorst] = latencies.back();
}

// Attacks one daemon.
class Arena {
  public:
    Arena(const Attack& attack, double seconds)
        : attack_(attack),
          seconds_(seconds),
          world_(test::openBag()),
          servers_(world_, 3600, std::chrono::seconds(1)) {
        world_.letIn({kFriendlyUsers[0], kAttackingUser});
        daemon_ = world_.start([](test::DaemonOptions& options) {
            options.defaults = {};
            options.launcher = {"/usr/bin/nice", "-n", std::to_string(-kServersNice)};
        });
    }

    // Measures without the attack, or with attackers of that priority. Throws std::runtime_error if the
    // canary was not served.
    Service measure(std::optional<Priority> attackers) const {
        const auto canary =
            startPeer(kFriendlyUsers[0], {"canary-client", daemon_->socketPath(), std::to_string(seconds_)});
        if (!canary->output().waitForLine("open")) throw std::runtime_error("the canary's session fails");
        std::unique_ptr<test::ChildProcess> attacker;
        if (attackers) {
            attacker = startPeer(attack_.entitled ? kAttackingUser : kUnentitledUser,
                                 {"attack", attack_.name, daemon_->socketPath()}, *attackers);
            if (!attacker->output().waitForLine("ready"))
                throw std::runtime_error(std::string("the attack fails: ") + attack_.name);
        }
        canary->closeInput();  // the signal to begin
        if (canary->waitForExit() != 0)
            throw std::runtime_error(std::string("the canary is not served: ") + attack_.name);
        Service service;
        std::istringstream line(canary->output().linesToTheEnd().back());
        for (double& figure : service.figures)
            line >> figure;
        return service;
    }

  private:
    const Attack& attack_;
    const double seconds_;
    World world_;
    AttackersServers servers_;
    std::unique_ptr<test::DaemonProcess> daemon_;
};

}  // namespace

int runCanary(const std::string& socketPath, double seconds) {
    prctl(PR_SET_TIMERSLACK, 1UL);
    ClientRuntime runtime;
    const auto session = openSession(runtime, socketPath, {{kTelvoraSessionInfoSessionID, 2}});
    std::cout << "open" << std::endl;
    std::cin.get();
    Visitor visitor;
    std::thread visits([&] {
        try {
            visitor.visit(socketPath);
        } catch (const std::runtime_error& error) {
            std::cerr << "canary: " << error.what() << '\n';
            std::_Exit(1);
        }
    });
    Service service;
    sendReports(*session, seconds, service);
    visitor.describe(service);
    for (const double figure : service.figures)
        std::cout << figure << ' ';
    std::cout << std::endl;
    std::_Exit(0);  // a visit may wait still
}

int measureCanary(const CanaryOptions& options) {
    if (geteuid() != 0) throw std::runtime_error("the canary and the attackers are other users: run as root");
    std::vector<const Attack*> attacks;
    for (const std::string& name : options.attacks)
        attacks.push_back(attackNamed(name));
    for (const Attack& attack : allAttacks()) {
        if (options.attacks.empty()) attacks.push_back(&attack);
    }
    std::cout << "Milliseconds: without the attack / with it / with attackers of the lowest priority on one "
                 "processor.\n\n"
                 "| attack | report, p50 | report, p99 | report, worst | start of a session, worst | "
                 "delivery, worst |\n|---|---|---|---|---|---|"
              << std::endl;
    // The servers would be on another machine. They yield to the clients, as the daemon does.
    setpriority(PRIO_PROCESS, 0, kServersNice);
    for (const Attack* attack : attacks) {
        const Arena first(*attack, options.seconds);
        Service services[] = {first.measure(std::nullopt), first.measure(Priority::normal), {}};
        services[2] = Arena(*attack, options.seconds).measure(Priority::apart);
        std::cout << "| " << attack->name << ": " << attack->means;
        for (size_t i = 0; i < Service::kFigures; ++i) {
            std::cout << fmt::format(" | {:.1f} / {:.1f} / {:.1f}", services[0].figures[i],
                                     services[1].figures[i], services[2].figures[i]);
        }
        std::cout << " |" << std::endl;
    }
    return 0;
}

}  // namespace telvora::bench
