// SPDX-License-Identifier: Apache-2.0
#include "sessions.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include "process_figures.h"
#include "telvora/keys.h"
#include "tests/support/await.h"
#include "tests/support/bags.h"
#include "world.h"

namespace telvora::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kHierarchySize = 10;
constexpr size_t kWindow = 64;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double share(const std::vector<double>& sorted, double part) {
    return sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

class Sessions {
  public:
    Sessions() : world_(test::openBag()), daemon_(world_.start()) {}
    // Ends the daemon first: reports that it still holds do not matter.
    ~Sessions() {
        daemon_->signal(SIGKILL);
        daemon_->waitForExit();
    }
    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;

    // Opens one session and waits for its configuration. Without a token, it is standalone.
    ClientSession& open(const std::string& token = "", int64_t level = 0, bool aggregates = false) {
        ClientSession::Handlers handlers;
        if (aggregates)
            handlers.aggregationBlock = [count = aggregated_](const AggregatedMessage&) { ++*count; };
        Dictionary info{{kTelvoraSessionInfoSessionID, sessions_.size()}};
        if (!token.empty()) {
            info.set(kTelvoraSessionInfoHierarchyToken, Dictionary{{kTelvoraHierarchyTokenTokenID, token},
                                                                   {kTelvoraHierarchyTokenLevel, level}});
        }
        sessions_.push_back(
            openSession(runtime_, daemon_->socketPath(), std::move(info), std::move(handlers)));
        return *sessions_.back();
    }

    // The daemon's processor time per report in microseconds, for reports of one session.
    double costOfReports(ClientSession& session, uint64_t reports) {
        const double before = cpuSeconds(daemon_->pid());
        Stream stream{session, nextNumber_, nextNumber_ + reports, reports, {}};
        nextNumber_ += reports;
        const size_t arrived = world_.laboratory().reports().eventCount();
        for (size_t i = 0; i < kWindow; ++i)
            stream.sendNext();
        stream.done.get_future().get();
        test::await<FlushAnswer>([&](auto done) { session.flushMessages(std::move(done)); });
        if (!world_.laboratory().reports().waitForEvents(arrived + reports, test::kPatience)) {
            throw std::runtime_error("reports are lost");
        }
        return (cpuSeconds(daemon_->pid()) - before) * 1e6 / static_cast<double>(reports);
    }

    pid_t daemon() const { return daemon_->pid(); }
    uint64_t aggregated() const { return aggregated_->load(); }

  private:
    // Sends reports one after another, with a window of unacknowledged ones.
    struct Stream {
        ClientSession& session;
        std::atomic<uint64_t> next;
        const uint64_t end;
        std::atomic<uint64_t> unanswered;
        std::promise<void> done;

        void sendNext() {
            const uint64_t number = next.fetch_add(1);
            if (number >= end) return;
            const Dictionary payload{{kNumberKey, number}, {"codec", "av1"}, {"bitrate", 4200}};
            session.sendMessage(4, 1, payload, [this](const auto&) {
                if (unanswered.fetch_sub(1) == 1) return done.set_value();
                sendNext();
            });
        }
    };

    World world_;
    std::unique_ptr<test::DaemonProcess> daemon_;
    ClientRuntime runtime_;
    uint64_t nextNumber_ = 0;
    // Shared with the aggregation block, which the runtime may call once after this object's end.
    const std::shared_ptr<std::atomic<uint64_t>> aggregated_ = std::make_shared<std::atomic<uint64_t>>(0);
    std::vector<std::unique_ptr<ClientSession>> sessions_;
};

Dictionary costs(Sessions& sessions, uint64_t reports) {
    sessions.open("plain", 0);
    ClientSession& plain = sessions.open("plain", 1);
    sessions.open("aggregated", 0, true);
    ClientSession& aggregated = sessions.open("aggregated", 1);
    const double without = sessions.costOfReports(plain, reports);
    const double with = sessions.costOfReports(aggregated, reports);
    return {{"withoutAggregator", without},
            {"withAggregator", with},
            {"aggregated", sessions.aggregated()},
            {"reports", reports}};
}

Dictionary measure(size_t count, bool hierarchies, uint64_t reports) {
    Sessions sessions;
    sessions.open();  // fetches the bag
    const pid_t pid = sessions.daemon();
    const Memory before = memoryOf(pid);
    const double cpuBefore = cpuSeconds(pid);
    const auto begin = Clock::now();
    std::vector<double> opening;
    for (size_t i = 0; i < count; ++i) {
        const auto started = Clock::now();
        const std::string token = hierarchies ? "bench-" + std::to_string(i / kHierarchySize) : "";
        sessions.open(token, i % kHierarchySize == 0 ? 0 : 1);
        opening.push_back(secondsSince(started) * 1e6);
    }
    const double seconds = secondsSince(begin);
    const double cpu = cpuSeconds(pid) - cpuBefore;
    const Memory after = memoryOf(pid);
    std::sort(opening.begin(), opening.end());
    const auto each = static_cast<double>(count);
    return {{"sessions", count},
            {"hierarchies", hierarchies},
            {"rssKiBPerSession", static_cast<double>(after.rssKiB - before.rssKiB) / each},
            {"pssKiBPerSession", static_cast<double>(after.pssKiB - before.pssKiB) / each},
            {"openMicroseconds", Dictionary{{"p50", share(opening, 0.5)}, {"p99", share(opening, 0.99)}}},
            {"openSeconds", seconds},
            {"openCpuMicrosecondsPerSession", cpu * 1e6 / each},
            {"daemonCpuMicrosecondsPerReport", costs(sessions, reports)}};
}

}  // namespace

Array measureSessions(const SessionsOptions& options) {
    Array figures;
    for (const size_t count : options.counts) {
        for (const bool hierarchies : {false, true})
            figures.push_back(measure(count, hierarchies, options.reports));
    }
    return figures;
}

}  // namespace telvora::bench
