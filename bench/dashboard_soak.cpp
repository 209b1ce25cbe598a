// SPDX-License-Identifier: Apache-2.0
//
// telvora-bench-dashboard: sends reports as reliable datagrams, in virtual time, over a network that loses
// some in each direction, and compares the arrivals with the prediction of the retransmission schedule.
// Prints the figures as JSON to standard output. Exits with status 0 if they agree.
//
// The prediction. A datagram is lost with probability p, an acknowledgement with probability q. An
// unacknowledged report is sent five times, in the ticks 0, 2, 5, 10 and 19. It is sent an (n+1)th time with
// probability f^n, f = 1 - (1-p)(1-q). An acknowledgement ends that early, but only for a report that has
// arrived; so a report arrives at least once with probability 1 - p^5, first in send n with p^n (1-p), and on
// average (1-p)(1 + f + f^2 + f^3 + f^4) times. The bound of the queue changes these figures for reports that
// 50 newer waiting ones displace:
//   - steady: the number of waiting reports behind a report is a sum of independent decisions. Its
//     distribution gives the expected number of displaced reports, which is close to 0: the prediction is
//     1 - p^5 for all.
//   - bursts without a pause, each sent when the previous one is settled: no acknowledgement arrives while a
//     burst is sent, so that its last 50 reports arrive with 1 - p^5 and all others, sent once, with 1 - p.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <iostream>
#include <map>

#include "async/virtual_network.h"
#include "completion/program.h"
#include "dashboard/dashboard_backend.h"
#include "telvora-lab/dashboard_decoder.h"
#include "telvora-lab/dashboard_tally.h"
#include "telvora-lab/event_json.h"
#include "telvora-lab/faulty_link.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/temporary_directory.h"

namespace telvora::bench {
namespace {

using namespace std::chrono_literals;

constexpr auto kPeriod = 500ms;
constexpr auto kOneWay = 5ms;
constexpr std::array<int, 5> kSendTicks = {0, 2, 5, 10, 19};
constexpr int kLastTick = 20;
constexpr size_t kQueued = 50;

struct Options {
    size_t reports = 100'000;
    double loss = 0.2;
    uint64_t seed = 1;
};

// The distribution of the reports over time.
struct Scenario {
    const char* name;
    size_t burst;  // sent at once
    std::chrono::milliseconds pause;
};

constexpr Scenario kSteady = {"steady", 1, 50ms};
constexpr Scenario kBursts = {"bursts", 200, 25 * kPeriod};

// A backend, the two directions of its network, and a collector.
class Soak {
  public:
    Soak(const Options& options, const Scenario& scenario)
        : options_(options),
          scenario_(scenario),
          there_({.loss = options.loss}, options.seed),
          back_({.loss = options.loss}, ~options.seed) {
        network_.onSend = [this](std::string_view datagram) {
            ++datagrams_;
            pass(there_, std::string(datagram), [this](const std::string& d) { arrive(d); });
            return true;
        };
    }

    void run() {
        const Dictionary profile{{"ip", "192.0.2.1"}, {"port", 1}, {"reliable", int{kPeriod.count()}}};
        const auto backend =
            DashboardBackend::make(services_, "dashboard", std::make_shared<const PropertyList>(profile),
                                   std::make_shared<const BackendIdentity>());
        start_ = network_.now();
        network_.runFor(1ms);  // between the ticks
        for (size_t i = 0; i < options_.reports; ++i) {
            if (i > 0 && i % scenario_.burst == 0) network_.runFor(scenario_.pause);
            sentInTick_.push_back(tick());
            backend->sendMessage(Dictionary{{"n", i}}, {}, 1, 2, EventID{static_cast<uint16_t>(i)});
        }
        backend->cleanup();
        network_.runFor((kLastTick + 1) * kPeriod);
    }

    double arrivedRatio() const { return share(tally_.distinct()); }
    double timesArrived() const { return share(tally_.arrived()); }
    double timesSent() const { return share(datagrams_); }
    size_t problems() const { return problems_; }
    // The number of reports that arrived first so many ticks after they were sent.
    const std::map<int64_t, size_t>& firstArrivals() const { return firstArrivals_; }

    Dictionary figures() const {
        const Dictionary tally = tally_.summary();
        Dictionary ticks;
        for (const auto& [after, count] : firstArrivals_)
            ticks.set(std::to_string(after), count);
        return {{"arrived", tally_.distinct()},
                {"arrivedRatio", arrivedRatio()},
                {"timesArrived", *tally.find("timesArrived")},
                {"meanTimesArrived", timesArrived()},
                {"meanTimesSent", timesSent()},
                {"firstArrivalAfterTicks", std::move(ticks)},
                {"undecodable", problems_},
                {"virtualSeconds", (network_.now() - start_) / 1s},
                {"timerCalls", network_.timerCalls}};
    }

  private:
    double share(size_t count) const {
        return static_cast<double>(count) / static_cast<double>(options_.reports);
    }
    int64_t tick() const { return (network_.now() - start_) / kPeriod; }

    void pass(lab::FaultyLink& link, std::string datagram, std::function<void(const std::string&)> arrival) {
        for (const auto delay : link.transit())
            network_.after(delay + kOneWay, [datagram, arrival] { arrival(datagram); });
    }

    void arrive(const std::string& datagram) {
        const auto report = lab::decodeDashboardDatagram(datagram);
        if (!report) {
            ++problems_;
            return;
        }
        if (tally_.count(*report)) {
            const size_t number = std::stoul(lab::dashboardPairs(report->text).at(0).second);
            ++firstArrivals_[tick() - sentInTick_[number]];
        }
        pass(back_, lab::acknowledgementFor(datagram), [this](const std::string& d) { network_.deliver(d); });
    }

    const Options& options_;
    const Scenario& scenario_;
    test::TemporaryDirectory directory_;
    UserDefaults defaults_{directory_.path(), directory_.path()};
    DeviceProperties properties_{Dictionary()};
    DeviceIdentity identity_{properties_, defaults_};
    Environment environment_{defaults_, identity_};
    test::FakeHttpClient http_;
    VirtualNetwork network_;
    BackendServices services_{.http = http_,
                              .identity = identity_,
                              .environment = environment_,
                              .defaults = defaults_,
                              .clock = [] { return TimeValue(); },
                              .countryCode = [] { return std::nullopt; },
                              .timeZoneOffsetSeconds = [] { return 0L; },
                              .random = [] { return 0.0; },
                              .makeNetworkQueue = [this] { return network_.makeQueue(); }};
    lab::FaultyLink there_, back_;
    lab::DashboardTally tally_;
    SteadyTime start_;
    std::vector<int64_t> sentInTick_;
    std::map<int64_t, size_t> firstArrivals_;
    size_t datagrams_ = 0;
    size_t problems_ = 0;
};

struct Prediction {
    double arrivedRatio;
    double meanTimesArrived;
    double meanTimesSent;
    double displaced;  // expected number of reports
};

// The probability that at least kQueued of the reports wait that were sent in the last 20 ticks, `perTick` in
// each, if an acknowledgement settles all but a share f of them after each send.
double probabilityOfFullQueue(double perTick, double f) {
    std::vector<double> waiting(kQueued + 1, 0);  // probability of each number; the last one: or more
    waiting[0] = 1;
    size_t sends = 0;
    for (int tick = 0; tick < kLastTick; ++tick) {
        if (sends < kSendTicks.size() && kSendTicks[sends] <= tick) ++sends;
        const double waits = std::pow(f, static_cast<double>(sends));
        for (int i = 0; i < static_cast<int>(std::ceil(perTick)); ++i) {
            waiting[kQueued] += waiting[kQueued - 1] * waits;
            for (size_t n = kQueued - 1; n > 0; --n)
                waiting[n] = waiting[n] * (1 - waits) + waiting[n - 1] * waits;
            waiting[0] *= 1 - waits;
        }
    }
    return waiting[kQueued];
}

Prediction predict(const Options& options, const Scenario& scenario) {
    const double p = options.loss;
    const double f = 1 - (1 - p) * (1 - p);
    double sends = 0;
    for (size_t n = 0; n < kSendTicks.size(); ++n)
        sends += std::pow(f, static_cast<double>(n));
    const double arrives = 1 - std::pow(p, static_cast<double>(kSendTicks.size()));
    const auto burst = static_cast<double>(scenario.burst);
    // A burst keeps only its last reports. Single reports are all kept, except those that the full queue
    // displaces.
    const double kept = std::min(1.0, static_cast<double>(kQueued) / burst);
    const double perTick = static_cast<double>(kPeriod / 1ms) / static_cast<double>(scenario.pause / 1ms);
    const double displaced = scenario.burst > 1 ? 1 - kept : probabilityOfFullQueue(perTick, f);
    return {kept * arrives + (1 - kept) * (1 - p), (1 - p) * (kept * sends + 1 - kept),
            kept * sends + 1 - kept, displaced * static_cast<double>(options.reports)};
}

Dictionary describe(const Prediction& prediction) {
    return {{"arrivedRatio", prediction.arrivedRatio},
            {"meanTimesArrived", prediction.meanTimesArrived},
            {"meanTimesSent", prediction.meanTimesSent},
            {"displaced", prediction.displaced}};
}

// Whether a measured share is within four standard deviations of its probability.
bool agrees(double measured, double probability, size_t trials) {
    const double deviation = std::sqrt(probability * (1 - probability) / static_cast<double>(trials));
    return std::abs(measured - probability) <= 4 * deviation;
}

bool agree(const Options& options, const Scenario& scenario, const Soak& soak, const Prediction& prediction) {
    bool good = soak.problems() == 0 && agrees(soak.arrivedRatio(), prediction.arrivedRatio, options.reports);
    if (scenario.burst > 1) return good;
    for (const auto& [ticks, count] : soak.firstArrivals()) {
        const auto send = std::find(kSendTicks.begin(), kSendTicks.end(), ticks);
        if (send == kSendTicks.end()) return false;
        const auto n = static_cast<double>(send - kSendTicks.begin());
        const double probability = std::pow(options.loss, n) * (1 - options.loss);
        const double measured = static_cast<double>(count) / static_cast<double>(options.reports);
        good = good && agrees(measured, probability, options.reports);
    }
    return good;
}

int run(const Options& options) {
    bool good = true;
    for (const Scenario& scenario : {kSteady, kBursts}) {
        Soak soak(options, scenario);
        soak.run();
        const Prediction prediction = predict(options, scenario);
        const bool agreed = agree(options, scenario, soak, prediction);
        good = good && agreed;
        std::cout << lab::toJson(Dictionary{{"scenario", scenario.name},
                                            {"reports", options.reports},
                                            {"lossEachWay", options.loss},
                                            {"predicted", describe(prediction)},
                                            {"measured", soak.figures()},
                                            {"agrees", agreed}},
                                 true)
                  << std::endl;
    }
    return good ? 0 : 1;
}

}  // namespace
}  // namespace telvora::bench

int main(int argc, char** argv) {
    constexpr int kUsageError = 2;
    telvora::bench::Options options;
    CLI::App app(
        "Sends reports to a dashboard over a lossy network in virtual time, and compares the arrivals with "
        "the prediction.");
    app.option_defaults()->always_capture_default();
    app.add_option("--reports", options.reports, "Reports in each scenario")
        ->check(CLI::Range(1, 10'000'000));
    app.add_option("--loss", options.loss, "Probability of losing a datagram, each way")
        ->check(CLI::Range(0.0, 0.99));
    app.add_option("--seed", options.seed, "Seed of the random sequence of the losses");
    if (const auto status = telvora::parseCommandLine(app, argc, argv, kUsageError)) return *status;
    return telvora::bench::run(options);
}
